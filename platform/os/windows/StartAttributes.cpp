#include "StartAttributes.h"

#include <utility>

namespace os {

StartAttributes::StartAttributes(std::vector<HANDLE> inherited, HANDLE job)
    : inherited_(std::move(inherited)), job_(job) {
  constexpr DWORD kAttributes = 2;
  SIZE_T size = 0;
  ::InitializeProcThreadAttributeList(nullptr, kAttributes, 0, &size);
  memory_ = std::make_unique<char[]>(size);
  is_made_ = ::InitializeProcThreadAttributeList(list(), kAttributes, 0, &size) != FALSE;
  is_good_ = is_made_ &&
             ::UpdateProcThreadAttribute(list(), 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, inherited_.data(),
                                         inherited_.size() * sizeof(HANDLE), nullptr, nullptr) &&
             ::UpdateProcThreadAttribute(list(), 0, PROC_THREAD_ATTRIBUTE_JOB_LIST, &job_, sizeof job_,
                                         nullptr, nullptr);
}

StartAttributes::~StartAttributes() {
  if (is_made_) ::DeleteProcThreadAttributeList(list());
}

}  // namespace os
