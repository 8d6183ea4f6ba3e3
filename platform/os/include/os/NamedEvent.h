#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace os {

/// An event that processes of one user share by name. It exists while somebody holds it; a holder that is
/// killed leaves nothing behind. Auto-reset: one Set releases one Wait. A Wait that is under way comes
/// before one that begins later; where the event is a file, whoever made it also comes before those who found
/// it. So whoever sets an event for which its maker waits, and then waits for the answer on the same event,
/// does not take its own signal.
///
/// `name` is any text, compared exactly ("Global\\C:/App/Agent.exe-agent" on every system).
class NamedEvent {
 public:
  virtual ~NamedEvent() = default;
  NamedEvent(const NamedEvent&) = delete;
  NamedEvent& operator=(const NamedEvent&) = delete;

  /// Makes the event, not signalled, or joins the holders of an existing one. Null when the system says
  /// no; `error` is then its code. Where the event is a file, waits up to a second for the end of a maker
  /// that was killed; so does Open.
  static std::unique_ptr<NamedEvent> Create(const std::string& name, int& error);
  /// Joins the holders of an event that exists; null when nobody holds one under this name.
  static std::unique_ptr<NamedEvent> Open(const std::string& name);

  virtual void Set() = 0;
  /// Whether the event was signalled within `timeout_ms`; below 0: waits as long as it takes.
  virtual bool Wait(int timeout_ms) = 0;
  /// For a holder that is about to end: from now on nobody opens the event any more, and the same name makes
  /// another one. Those who hold it go on with it. (On systems whose events are no files the name lasts
  /// for as long as somebody else holds it.)
  virtual void GiveUpName() = 0;
  /// The handle's value, for log lines.
  virtual std::intptr_t native() const = 0;

 protected:
  NamedEvent() = default;
};

}  // namespace os
