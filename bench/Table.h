#pragma once

#include <string>
#include <vector>

#include "Row.h"

namespace bench {

/// Prints one block, as soon as it is measured.
void PrintBlock(const std::string& name, const std::string& title, const std::vector<Row>& rows);

/// The objects of one block, for the list in the file; what a row does not have of its five figures is null.
std::string RowsAsJson(const std::vector<Row>& rows);

}  // namespace bench
