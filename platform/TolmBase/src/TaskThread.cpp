#include "TolmBase/TaskThread.h"

#include <utility>

namespace Tolm::Base {
namespace {

thread_local CTaskThread* t_thread = nullptr;

}  // namespace

CTaskThread::CTaskThread() {
  t_thread = this;
}

CTaskThread::~CTaskThread() {
  t_thread = nullptr;
}

CTaskThread::CLastAct::CLastAct() : thread_(t_thread) {
  if (thread_ != nullptr) thread_->in_last_act_ = true;
}

CTaskThread::CLastAct::~CLastAct() {
  if (thread_ != nullptr) thread_->in_last_act_ = false;
}

CTaskThread* CTaskThread::InLastAct() {
  CTaskThread* const self = t_thread;
  if (self == nullptr || !self->in_last_act_ || self->next_task_) return nullptr;
  return self->away_ || self->MayLeave() ? self : nullptr;
}

void CTaskThread::Follow(std::shared_ptr<IHost> host, std::unique_ptr<CTask> task) {
  next_host_ = std::move(host);
  next_task_ = std::move(task);
}

bool CTaskThread::IsOnItsWayTo(const IHost* host) {
  return t_thread != nullptr && t_thread->next_task_ && t_thread->next_host_.get() == host;
}

void CTaskThread::RunFollowers() {
  if (!next_task_) return;
  Leave();
  away_ = true;
  while (next_task_) {
    const std::shared_ptr<IHost> host = std::move(next_host_);
    host->RunAsGuest(std::move(next_task_));
  }
  away_ = false;
  ComeBack();
}

}  // namespace Tolm::Base
