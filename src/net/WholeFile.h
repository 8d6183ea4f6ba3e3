#pragma once

// Small text files, read and written as a whole.

#include <cstddef>
#include <string>

namespace TolmLPCFrame {

/// Reads the file at `path` up to and including its last line feed (all of it when it has none). When it
/// cannot be opened or is empty, `alt_path` is read instead; empty: the file beside it that has the
/// extension ".data" in place of its own. False, with `content` untouched, when neither can be read.
bool ReadFileText(std::string& content, const std::string& path, const std::string& alt_path = {});

/// Overwrites the file at `path` with `content` up to and including its last line feed (all of it when it
/// has none), past the system's cache. The file is never cut: it is filled up with line feeds to a
/// whole number of disk blocks, and at least to the length that it had. A file that is missing is made.
/// True when it could be opened; what the disk makes of it is not looked at.
bool WriteFileText(const std::string& path, const std::string& content);

/// The same for disks whose blocks have `block` bytes.
bool WriteFileTextAligned(const std::string& path, const std::string& content, std::size_t block);

/// `size`, or the next multiple of `block` above it.
std::size_t RoundUpToBlock(std::size_t size, std::size_t block);

}  // namespace TolmLPCFrame
