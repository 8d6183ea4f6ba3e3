#pragma once

#include <string>

namespace Tolm::Base::FileUtil {

/// The directory of the running executable, in the local code page, ending with a separator. Empty
/// when the system does not tell. Each character that the code page lacks is a "?".
std::string GetCurExeDir();

/// Publishes the same directory in UTF-8 for GetCurExeDirUtf8. A separator is added where one is missing.
void InitCurExeDirUtf8(const std::string& utf8_dir);

/// What InitCurExeDirUtf8 published, ending with a separator; before that, GetCurExeDir in UTF-8.
std::string GetCurExeDirUtf8();

}  // namespace Tolm::Base::FileUtil
