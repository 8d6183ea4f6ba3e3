#pragma once

// The sets: what published rules say, against what our parsers make of it. Each prints its figures.

namespace trust {

/// RFC 8259, against the three JSON readers.
void RunJson();
/// Documents that are nested too deep for any recursion, against everything that takes JSON or XML.
void RunNesting();
/// RFC 3629 and table 3-7 of the Unicode Standard, against what takes texts.
void RunUtf8();
/// RFC 4648, section 4.
void RunBase64();
/// RFC 6455 from a server's side, right and wrong, against the guard's connection to the frame.
void RunWebSocketClient();

}  // namespace trust
