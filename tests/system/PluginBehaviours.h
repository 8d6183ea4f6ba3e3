#pragma once

namespace tolm::test {

/// A session id that is recognised wherever it turns up.
inline constexpr char kSecret[] = "5ec7e75ec7e75ec7e75ec7e75ec7e75e";

/// The life of a plugin process: `arguments` are BEHAVIOUR and then what a plugin is started with.
///
/// Behaviours: "plain" ends when it is asked to; "stubborn" never answers "Uninit"; "lasting" answers it
/// and goes on; "flooding" sends notifications to the host all the time once it is ready. All of them
/// serve, below "/ID/" and their own id:
///   echo    answers with the headers, parts and body of the request, "X-Query" and "X-Process"
///   SID=... with kSecret, the same
///   relay   calls the url in the body, or in "X-Url", for at most "X-Time-Out" ms; answers "got ..." or
///           "error N"
///   later   the same without waiting: prints "later ..." when the answer comes
///   block   prints "blocked" and never answers
///   hear    prints "heard ..."
///   push    pushes the body under the tag "X-Tag"
///   tell    sends the body as a notification to /host/tell
/// and they print "ready", "lost" and "uninit".
int RunAsPlugin(int count, const char* const* arguments);

}  // namespace tolm::test
