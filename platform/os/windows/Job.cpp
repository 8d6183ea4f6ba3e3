#include "Job.h"

namespace os {

Handle MakeJob() {
  Handle job(::CreateJobObjectW(nullptr, nullptr));
  if (!job) return {};
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
  limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
  if (!::SetInformationJobObject(job.get(), JobObjectExtendedLimitInformation, &limits, sizeof limits)) {
    return {};
  }
  return job;
}

void EndJob(const Handle& job) {
  ::TerminateJobObject(job.get(), kKilledStatus);
  // Terminated processes count as long as they are being taken down; no object tells when that is over.
  constexpr DWORD kPatienceMs = 1000;
  const ULONGLONG begin = ::GetTickCount64();
  for (;;) {
    JOBOBJECT_BASIC_ACCOUNTING_INFORMATION accounting{};
    if (!::QueryInformationJobObject(job.get(), JobObjectBasicAccountingInformation, &accounting,
                                     sizeof accounting, nullptr) ||
        accounting.ActiveProcesses == 0 || ::GetTickCount64() - begin >= kPatienceMs) {
      return;
    }
    ::Sleep(1);
  }
}

std::wstring StopEventName(DWORD process_id) {
  return L"Local\\tolm-stop-" + std::to_wstring(process_id);
}

}  // namespace os
