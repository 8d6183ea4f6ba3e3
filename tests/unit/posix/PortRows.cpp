#include "PortRows.h"

namespace os {

bool TellsOwners() {
  return true;
}

}  // namespace os
