#pragma once

#include <optional>
#include <string>
#include <vector>

namespace trust::death {

/// A plugin's folder holds what it is to do: a file "script" with a word, which the first life that finds it
/// takes away, so that its successor is an ordinary plugin again. What it has come to is a file as well.
///
///   hold-start      stops before it connects
///   half-hello      has sent half of its HELLO
///   hello           has sent HELLO, and reads nothing
///   registered      has registered its url, and does not say that it has initialised
///   hold-callback   is initialised, and calls what the host holds
///   big-reply       answers /big with 10 MiB when the file "go" is there
std::optional<std::string> TakeScript();

/// Says that the script has come so far: makes that file.
void SayReached(const std::string& what = "reached");
/// Waits for the file "go".
void WaitForGo();

/// These end with the process.
[[noreturn]] void SendHello(const std::string& id, bool whole);
[[noreturn]] void RegisterOnly(const std::string& id, const std::string& endpoint);

/// Makes the file "middle" when a connection of this process is in the middle of sending much.
void SayWhenInTheMiddle();

}  // namespace trust::death
