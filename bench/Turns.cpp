#include "Turns.h"

#include <utility>

namespace bench {

const Rounds& Turns::Add(Round round) {
  return turns_.emplace_back(Turn{std::move(round), {}}).rounds;
}

const Rounds& Turns::AddSingle(std::function<double()> round) {
  return Add([round = std::move(round)] { return std::vector<double>{round()}; });
}

void Turns::Run(int rounds) {
  for (const Turn& turn : turns_) turn.round();
  for (int i = 0; i < rounds; ++i) {
    for (Turn& turn : turns_) turn.rounds.Add(turn.round());
  }
}

}  // namespace bench
