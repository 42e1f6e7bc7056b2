// XThread: the base of every long-lived worker (the page engine, the image caches). A worker
// serves one command at a time through a single command slot: a caller hands in a command
// number with two 64-bit parameters and waits for the body's answer.
//
// Ownership: every XThread has one owner that stops it. The base destructor runs after the
// derived part is gone, when ThreadMain() and everything it touches no longer exist, so a
// subclass must, in its own destructor, make its body return (a quit command, or a flag the body
// checks between WaitRequest() calls) and then call Wait(). The base destructor only joins, which
// is then a no-op.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

#include "base/types.h"

struct XCommand {
    uint32_t nCommand = 0;
    uint64_t nParam1 = 0;
    uint64_t nParam2 = 0;
};

class XThread {
public:
    static constexpr uint32_t kInfinite = 0xFFFFFFFF;

    XThread();
    // Waits for the thread without limit (joins). See the ownership note above.
    virtual ~XThread();

    XThread(const XThread&) = delete;
    XThread& operator=(const XThread&) = delete;

    // Returns false when a thread still runs (start refused); otherwise resets the request and
    // done state, stores `arg` and starts a new thread that runs ThreadMain(). A previous thread
    // whose body has returned is joined first.
    bool Start(void* arg = nullptr);

    // Waits for idle up to the limit, delivers the command and waits for the answer up to the
    // limit again (each wait gets the whole limit). Returns the body's result, or kXFail when the
    // thread is gone or a limit ran out. A finite limit that runs out sets *timedOut.
    // *delivered tells whether the command reached the thread: false means it was still busy and
    // the caller keeps ownership of whatever p1 and p2 point to; true with *timedOut means the
    // thread took the job and will finish it later, and the caller may poll WaitIdle().
    // kInfinite waits in steps of 1000 ms and checks each time whether the thread still lives; a
    // thread whose body returned gives kXFail.
    XResult SendCommand(uint32_t cmd, uint64_t p1, uint64_t p2, uint32_t timeoutMs,
                        bool* timedOut = nullptr, bool* delivered = nullptr);

    // The body has not returned yet.
    bool IsRunning() const;
    // No command is waiting in the slot or being served.
    bool IsIdle() const;
    // Waits up to the limit until no command is waiting or being served; true when idle.
    bool WaitIdle(uint32_t timeoutMs);
    // Joins the thread if there is one. Subclasses call this from their own destructor after
    // telling the body to stop.
    void Wait();
    // The kernel's id of the thread while its body runs; 0 when there is none.
    uint64_t GetThreadId() const;

protected:
    // The body; its return ends the thread. It takes commands with WaitRequest() and answers each
    // with Reply().
    virtual uint32_t ThreadMain() = 0;

    // Body side: waits up to `timeoutMs` for a command and returns it when one came. The command
    // must be answered with Reply(); one left unanswered is answered with kXFail by the next
    // WaitRequest().
    std::optional<XCommand> WaitRequest(uint32_t timeoutMs);

    // Answers the command taken by WaitRequest(); the thread becomes idle. Without a command
    // taken it does nothing.
    void Reply(XResult result);

    void* GetStartArg() const;

private:
    enum class SlotState { kIdle, kPending, kServing };

    void Run();
    void AnswerLocked(XResult result);

    // Guards everything below. Never held while the body runs its own work.
    mutable std::mutex m_mutex;
    std::condition_variable m_requestCv;  // body side: a command was stored
    std::condition_variable m_stateCv;    // caller side: idle, an answer, the body returned

    std::thread m_thread;  // taken out under the lock and joined outside it
    void* m_pArg = nullptr;
    uint64_t m_nThreadId = 0;
    bool m_bRunning = false;

    SlotState m_slot = SlotState::kIdle;
    XCommand m_command;
    uint64_t m_nSlotSeq = 0;  // sequence number of the command in the slot
    uint64_t m_nLastSeq = 0;  // last sequence number handed out, never reused
    uint64_t m_nRun = 0;      // counts Start() calls, to tell runs of the body apart
    // Answers by sequence number, for callers still waiting: a caller that gave up removes its
    // entry, so a late answer is dropped instead of reaching the next caller.
    std::map<uint64_t, std::optional<XResult>> m_answers;
};
