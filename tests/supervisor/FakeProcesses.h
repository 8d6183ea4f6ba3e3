#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Process.h"

namespace guard::test {

/// What became of one process that was started; it does what the test says.
struct FakeRun {
  os::ProcessRequest request;
  long id = 0;
  bool ends_when_asked = false;
  bool ends_when_killed = true;
  int asked = 0;
  int killed = 0;  ///< trees killed while it ran
  bool ended = false;
  bool dropped = false;  ///< nobody holds it any more

  void Prints(std::string_view text) { request.on_output(text); }
  void Ends(int status, int signal = 0) {
    if (std::exchange(ended, true)) return;
    request.on_output("");
    request.on_end({status, signal});
  }
};

/// Starts processes that are none.
class FakeProcesses {
 public:
  std::vector<std::shared_ptr<FakeRun>> runs;
  std::string failure;  ///< while not empty: starts fail for this reason
  bool next_end_when_asked = false;
  bool next_end_when_killed = true;
  int attempts = 0;

  ProcessStarter Starter() {
    return [this](os::ProcessRequest request, std::string& why) { return Start(std::move(request), why); };
  }
  FakeRun& last() { return *runs.back(); }
  /// How many run now.
  std::size_t alive() const {
    std::size_t count = 0;
    for (const auto& run : runs) count += run->ended || run->dropped ? 0 : 1;
    return count;
  }
  /// The runs of the plugin whose manifest says this program.
  std::vector<std::shared_ptr<FakeRun>> RunsOf(const std::string& program_end) const {
    std::vector<std::shared_ptr<FakeRun>> found;
    for (const auto& run : runs) {
      if (run->request.program.ends_with(program_end)) found.push_back(run);
    }
    return found;
  }

 private:
  class FakeProcess : public Process {
   public:
    explicit FakeProcess(std::shared_ptr<FakeRun> run) : run_(std::move(run)) {}
    ~FakeProcess() override { run_->dropped = true; }
    long id() const override { return run_->id; }
    void AskToEnd() override {
      ++run_->asked;
      if (run_->ends_when_asked) run_->Ends(0);
    }
    void KillTree() override {
      if (run_->ended) return;
      ++run_->killed;
      if (run_->ends_when_killed) run_->Ends(0, 9);
    }

   private:
    const std::shared_ptr<FakeRun> run_;
  };

  std::unique_ptr<Process> Start(os::ProcessRequest request, std::string& why) {
    ++attempts;
    if (!failure.empty()) {
      why = failure;
      return nullptr;
    }
    auto run = std::make_shared<FakeRun>();
    run->request = std::move(request);
    run->id = 1000 + attempts;
    run->ends_when_asked = next_end_when_asked;
    run->ends_when_killed = next_end_when_killed;
    runs.push_back(run);
    return std::make_unique<FakeProcess>(run);
  }
};

}  // namespace guard::test
