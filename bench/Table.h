#pragma once

#include <string>
#include <vector>

#include "Row.h"

namespace bench {

/// Prints one block, as soon as it is measured.
void PrintBlock(const std::string& name, const std::string& title, const std::vector<Row>& rows);

/// One block of the file for comparing two builds.
std::string BlockAsJson(const std::string& name, const std::vector<Row>& rows);

}  // namespace bench
