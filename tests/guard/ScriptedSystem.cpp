#include "ScriptedSystem.h"

#include <filesystem>
#include <fstream>
#include <memory>
#include <string_view>
#include <system_error>
#include <utility>

#include "Journal.h"
#include "os/ExecutablePath.h"
#include "os/NamedEvent.h"
#include "os/UnbufferedFile.h"

namespace tolm::test {
namespace {

class ScriptedEvent final : public os::NamedEvent {
 public:
  ScriptedEvent() = default;
  void Set() override { Journal::Note("event.Set"); }
  bool Wait(int timeout_ms) override {
    Journal::Note("event.Wait " + std::to_string(timeout_ms));
    return ScriptedSystem::Get().event_wait(timeout_ms);
  }
  void GiveUpName() override {}
  std::intptr_t native() const override { return kEventHandle; }
};

class PlainFile final : public os::UnbufferedFile {
 public:
  explicit PlainFile(std::string path) : path_(std::move(path)) {}

  bool Size(std::uint64_t& size) const override {
    Journal::Note("file.Size");
    std::error_code error;
    size = std::filesystem::file_size(path_, error);
    return ScriptedSystem::Get().file_size(size) && !error;
  }

  bool WriteFromStart(std::string_view content, std::size_t block) override {
    Journal::Note("file.Write " + std::to_string(block) + " " + std::to_string(content.size()));
    if (!ScriptedSystem::Get().file_write(block)) return false;
    std::fstream file(path_, std::ios::in | std::ios::out | std::ios::binary);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    return static_cast<bool>(file.flush());
  }

 private:
  const std::string path_;
};

}  // namespace

ScriptedSystem& ScriptedSystem::Get() {
  static ScriptedSystem* const system = new ScriptedSystem;
  return *system;
}

void ScriptedSystem::Reset() {
  directory = [] { return std::string("/nowhere/"); };
  event_exists = false;
  event_wait = true;
  start = [](const std::string&) { return os::StartedProcess{true, 4711, 0}; };
  tcp_table = true;
  udp_table = true;
  file_open = true;
  file_size = true;
  file_write = true;
}

os::PortRow Held(std::uint16_t port, std::uint32_t owner) {
  os::PortRow row;
  row.local_port = port;
  row.owning_process_id = owner;
  return row;
}

}  // namespace tolm::test

namespace os {

using tolm::test::Journal;
using tolm::test::ScriptedSystem;

std::string ExecutableDirectory() {
  return ScriptedSystem::Get().directory();
}

std::unique_ptr<NamedEvent> NamedEvent::Open(const std::string& name) {
  Journal::Note("event.Open " + name);
  if (!ScriptedSystem::Get().event_exists(name)) return nullptr;
  return std::make_unique<tolm::test::ScriptedEvent>();
}

StartedProcess StartHidden(const std::string& command_line) {
  Journal::Note("process.Start " + command_line);
  return ScriptedSystem::Get().start(command_line);
}

void RunRemovalCommand(const std::string& command) {
  Journal::Note("process.Remove " + command);
}

bool ReadTcpTable(std::vector<PortRow>& rows, Owners /*owners*/) {
  Journal::Note("table.Tcp");
  return ScriptedSystem::Get().tcp_table(rows);
}

bool ReadUdpTable(std::vector<PortRow>& rows, Owners /*owners*/) {
  Journal::Note("table.Udp");
  return ScriptedSystem::Get().udp_table(rows);
}

std::unique_ptr<UnbufferedFile> UnbufferedFile::Open(const std::string& path) {
  Journal::Note("file.Open " + path);
  if (!ScriptedSystem::Get().file_open(path)) return nullptr;
  std::ofstream made_if_missing(path, std::ios::app | std::ios::binary);
  if (!made_if_missing) return nullptr;
  return std::make_unique<tolm::test::PlainFile>(path);
}

}  // namespace os
