#include "TolmBase/GuidUtil.h"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "os/PerThread.h"

namespace Tolm::Base::GuidUtil {

std::string CreateGuid() {
  // One per thread, since a generator is not safe to share. It asks the system for every GUID, so a
  // forked child does not repeat its parent's.
  static auto& generators = *new os::PerThread<boost::uuids::random_generator>;
  return boost::uuids::to_string(generators.Get()());
}

}  // namespace Tolm::Base::GuidUtil
