#pragma once

// Where fallible calls are made from, and which of them is to fail.
//
// A site is a call together with the nearest functions of ours that lead to it. The environment asks:
//
//   TOLM_FAULTS_CODE=FILE     which code of the program is whose: records of three 32-bit numbers (begin,
//   end,
//                             owner), by address. Without it everything sleeps.
//   TOLM_FAULTS_RECORD=FILE   at the end, the sites that this process came by are written there
//   TOLM_FAULTS_FAIL=SITE     this one fails when it is reached for the first time...
//   TOLM_FAULTS_ALWAYS=1      ...and each time after it
//
// What failed is noted in the file at once. A child that was forked takes part until it becomes another
// program; other programs do not.

namespace tolm::faults {

/// Whether this call, by whoever is on the stack, is to fail. Leaves errno as it is, allocates nothing.
bool Fails(const char* call) noexcept;

/// The function of this name that the program would have without us.
void* Next(const char* name) noexcept;

}  // namespace tolm::faults
