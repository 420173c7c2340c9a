#include "platform/thread.h"

#include <sched.h>

#include <csignal>
#include <memory>
#include <utility>

#include "platform/sys/clock.h"

namespace Tessaro::Iot::Component {

namespace {

constexpr size_t kernel_name_length = 15;
constexpr size_t alternate_stack_size = size_t{64} * 1024;

thread_local CThread* current_thread = nullptr;

// A fault that overflowed the stack still gets its log line: the handler needs a stack of its own.
class AlternateStack {
 public:
  // Not written to: pages that no handler needs are never there.
  AlternateStack() : memory_(std::make_unique_for_overwrite<char[]>(alternate_stack_size)) {
    stack_t stack{};
    stack.ss_sp = memory_.get();
    stack.ss_size = alternate_stack_size;
    (void)::sigaltstack(&stack, &previous_);  // without it the handler runs on the normal stack
  }
  ~AlternateStack() { (void)::sigaltstack(&previous_, nullptr); }
  AlternateStack(const AlternateStack&) = delete;
  AlternateStack& operator=(const AlternateStack&) = delete;

 private:
  std::unique_ptr<char[]> memory_;
  stack_t previous_{};
};

}  // namespace

CThread::CThread(std::string name, int32_t policy, int32_t priority, uint32_t stack_size)
    : name_(std::move(name)), policy_(policy), priority_(priority), stack_size_(stack_size) {}

CThread::~CThread() { (void)stopThread(); }

bool CThread::createThread() {
  if (!finished_.load()) return false;
  if (joinable_) {
    (void)::pthread_join(thread_, nullptr);  // the body has returned
    joinable_ = false;
  }
  wake_.drain();
  looping_.store(true);
  finished_.store(false);

  pthread_attr_t attributes;
  (void)::pthread_attr_init(&attributes);                                            // cannot fail on Linux
  if (stack_size_ > 0) (void)::pthread_attr_setstacksize(&attributes, stack_size_);  // too small: the default
  joinable_ = ::pthread_create(&thread_, &attributes, &CThread::run, this) == 0;
  (void)::pthread_attr_destroy(&attributes);
  if (!joinable_) finished_.store(true);
  return joinable_;
}

bool CThread::stopThread() {
  cancelThread();
  // The thread itself looks at nothing else here: its creator may still be writing the fields below.
  if (current_thread != this && joinable_) {
    (void)::pthread_join(thread_, nullptr);  // fails only for threads that are not ours
    joinable_ = false;
  }
  return true;
}

void CThread::cancelThread() noexcept {
  looping_.store(false);
  wake_.post();
}

bool CThread::looping() const noexcept { return looping_.load(); }

void CThread::sleep(int64_t duration_ms) noexcept {
  if (current_thread != nullptr) {
    (void)current_thread->wake_.pend(duration_ms);  // taken: cancelled; not taken: slept
  } else {
    sys::pause_for(duration_ms);
  }
}

void* CThread::run(void* self) noexcept {
  CThread& thread = *static_cast<CThread*>(self);
  const AlternateStack stack;
  current_thread = &thread;
  (void)::pthread_setname_np(::pthread_self(), thread.name_.substr(0, kernel_name_length).c_str());  // only shown
  thread.apply_policy();
  (void)thread.threadProc();
  current_thread = nullptr;
  thread.finished_.store(true);
  return nullptr;
}

void CThread::apply_policy() const noexcept {
  if (policy_ != policy_fifo) return;
  sched_param parameters{};
  parameters.sched_priority = priority_;
  // Set from inside: pthread_create with a policy fails where it is not permitted, and cannot ask for the reset that
  // keeps forked children on the normal policy.
  (void)::sched_setscheduler(0, SCHED_FIFO | SCHED_RESET_ON_FORK, &parameters);  // refused: the normal policy stays
}

}  // namespace Tessaro::Iot::Component
