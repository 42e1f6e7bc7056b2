#include "base/xthread.h"

#include <unistd.h>

#include <chrono>
#include <system_error>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;

// Step of an infinite wait: each step looks again whether the thread still lives.
constexpr std::chrono::milliseconds kLivenessStep{1000};

// Waits on `cv` until `ready()` holds, up to `timeoutMs`; kInfinite waits in liveness steps until
// `ready()` holds or `alive()` no longer does. Returns ready().
template <class Ready, class Alive>
bool WaitFor(std::condition_variable& cv, std::unique_lock<std::mutex>& lock, uint32_t timeoutMs,
             Ready ready, Alive alive) {
    if (timeoutMs == XThread::kInfinite) {
        while (!ready() && alive()) cv.wait_for(lock, kLivenessStep, [&] { return ready(); });
        return ready();
    }
    return cv.wait_until(lock, Clock::now() + std::chrono::milliseconds(timeoutMs), ready);
}

}  // namespace

XThread::XThread() = default;

XThread::~XThread() {
    Wait();
}

bool XThread::Start(void* arg) {
    std::thread finished;
    bool started = false;
    {
        std::unique_lock lock(m_mutex);
        if (m_bRunning) return false;
        finished = std::move(m_thread);
        m_bRunning = true;
        m_pArg = arg;
        m_nThreadId = 0;
        m_slot = SlotState::kIdle;
        m_command = {};
        ++m_nRun;
        try {
            m_thread = std::thread([this] { Run(); });
            started = true;
            // The id is published by the thread itself; callers may ask for it right after Start.
            m_stateCv.wait(lock, [&] { return m_nThreadId != 0 || !m_bRunning; });
        } catch (const std::system_error&) {  // out of threads: the worker cannot run
            m_bRunning = false;
        }
    }
    // The previous body has returned; its thread only has to finish leaving Run().
    if (finished.joinable()) finished.join();
    return started;
}

void XThread::Run() {
    {
        std::lock_guard lock(m_mutex);
        m_nThreadId = static_cast<uint64_t>(gettid());
        m_stateCv.notify_all();
    }
    ThreadMain();
    std::lock_guard lock(m_mutex);
    m_bRunning = false;
    m_nThreadId = 0;
    // A command that was waiting or being served will never be answered: its caller is woken by
    // the notification below and fails because the thread is gone.
    m_slot = SlotState::kIdle;
    m_stateCv.notify_all();
    // Nothing of this object is touched after the lock is released: Wait() may destroy it.
}

XResult XThread::SendCommand(uint32_t cmd, uint64_t p1, uint64_t p2, uint32_t timeoutMs,
                             bool* timedOut, bool* delivered) {
    if (timedOut) *timedOut = false;
    if (delivered) *delivered = false;
    std::unique_lock lock(m_mutex);
    const auto alive = [&] { return m_bRunning; };

    if (!WaitFor(
            m_stateCv, lock, timeoutMs, [&] { return m_slot == SlotState::kIdle || !m_bRunning; },
            alive)) {
        if (timedOut) *timedOut = true;
        return kXFail;
    }
    if (!m_bRunning) return kXFail;

    // The answer must come from this run of the body: a thread that ended and was started again
    // while this caller slept will never answer.
    const uint64_t run = m_nRun;
    const auto sameRun = [&] { return m_bRunning && m_nRun == run; };
    const uint64_t seq = ++m_nLastSeq;
    m_command = {cmd, p1, p2};
    m_nSlotSeq = seq;
    m_slot = SlotState::kPending;
    auto answer = m_answers.emplace(seq, std::nullopt).first;
    if (delivered) *delivered = true;
    m_requestCv.notify_one();

    const bool settled = WaitFor(
        m_stateCv, lock, timeoutMs, [&] { return answer->second.has_value() || !sameRun(); },
        sameRun);
    const std::optional<XResult> result = answer->second;
    m_answers.erase(answer);
    // An answer that came just before the thread ended still counts.
    if (result) return *result;
    if (!settled && timedOut) *timedOut = true;  // still running, the limit ran out
    return kXFail;
}

bool XThread::IsRunning() const {
    std::lock_guard lock(m_mutex);
    return m_bRunning;
}

bool XThread::IsIdle() const {
    std::lock_guard lock(m_mutex);
    return m_slot == SlotState::kIdle;
}

bool XThread::WaitIdle(uint32_t timeoutMs) {
    std::unique_lock lock(m_mutex);
    // The end of the body makes the slot idle, so no liveness check is needed here.
    return WaitFor(
        m_stateCv, lock, timeoutMs, [&] { return m_slot == SlotState::kIdle; },
        [] { return true; });
}

void XThread::Wait() {
    std::thread thread;
    {
        std::lock_guard lock(m_mutex);
        thread = std::move(m_thread);
    }
    if (!thread.joinable()) return;
    if (thread.get_id() == std::this_thread::get_id()) {
        thread.detach();  // a body cannot join itself; its owner's Wait() would have found it
        return;
    }
    thread.join();
}

uint64_t XThread::GetThreadId() const {
    std::lock_guard lock(m_mutex);
    return m_nThreadId;
}

std::optional<XCommand> XThread::WaitRequest(uint32_t timeoutMs) {
    std::unique_lock lock(m_mutex);
    if (m_slot == SlotState::kServing) AnswerLocked(kXFail);
    if (!WaitFor(
            m_requestCv, lock, timeoutMs, [&] { return m_slot == SlotState::kPending; },
            [] { return true; })) {
        return std::nullopt;
    }
    m_slot = SlotState::kServing;
    return m_command;
}

void XThread::Reply(XResult result) {
    std::lock_guard lock(m_mutex);
    if (m_slot == SlotState::kServing) AnswerLocked(result);
}

void XThread::AnswerLocked(XResult result) {
    // The caller may have given up; then nobody waits for this sequence number any more.
    if (auto it = m_answers.find(m_nSlotSeq); it != m_answers.end()) it->second = result;
    m_slot = SlotState::kIdle;
    m_stateCv.notify_all();
}

void* XThread::GetStartArg() const {
    std::lock_guard lock(m_mutex);
    return m_pArg;
}
