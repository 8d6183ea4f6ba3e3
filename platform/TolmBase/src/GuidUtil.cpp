#include "TolmBase/GuidUtil.h"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

namespace Tolm::Base::GuidUtil {

std::string CreateGuid() {
  // One per thread, since a generator is not safe to share. It asks the system for every GUID, so a
  // forked child does not repeat its parent's.
  thread_local boost::uuids::random_generator generator;
  return boost::uuids::to_string(generator());
}

}  // namespace Tolm::Base::GuidUtil
