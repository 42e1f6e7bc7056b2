#include "base/xthread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr uint32_t kInfinite = XThread::kInfinite;

// A worker whose body is given by the test. Like the engine's workers it polls for commands, keeps
// state of its own while it runs, and stops its body in its own destructor, while that state (and
// the body itself) still exist.
class TestThread : public XThread {
public:
    explicit TestThread(std::function<uint32_t(TestThread&)> body) : m_body(std::move(body)) {}
    ~TestThread() override {
        m_bStop = true;
        Wait();
    }

    using XThread::WaitRequest;

    // Answers every command with `handler` until the destructor stops it.
    uint32_t Serve(const std::function<XResult(const XCommand&)>& handler) {
        for (; !m_bStop; m_sPolls += '.') {
            if (auto cmd = WaitRequest(1)) Reply(handler(*cmd));
        }
        m_sPolls += "stopped";  // runs after the destructor body started
        return 0;
    }

protected:
    uint32_t ThreadMain() override { return m_body(*this); }

private:
    std::function<uint32_t(TestThread&)> m_body;
    std::atomic<bool> m_bStop{false};
    std::string m_sPolls;
};

// An answer to which every bit of every field contributes, each field in its own way.
XResult Checksum(const XCommand& c) {
    const uint64_t h = (c.nCommand * 0x9E3779B97F4A7C15ull ^ c.nParam1) * 31 + c.nParam2;
    return static_cast<XResult>(h ^ h >> 32);
}

TEST(XThread, StartIsRefusedWhileRunningAndAnUnansweredCommandFails) {
    // The body takes one command and returns without answering it.
    TestThread t([](TestThread& self) {
        self.WaitRequest(kInfinite);
        return 0u;
    });
    // Never started: nobody to deliver to, and no waiting for one. Flags: (timedOut, delivered).
    bool timedOut = true, delivered = true;
    EXPECT_EQ(t.SendCommand(1, 0, 0, kInfinite, &timedOut, &delivered), kXFail);
    EXPECT_EQ(std::pair(timedOut, delivered), std::pair(false, false));

    ASSERT_TRUE(t.Start());
    EXPECT_FALSE(t.Start());
    // The end of the body wakes the caller that would otherwise wait forever for an answer.
    EXPECT_EQ(t.SendCommand(1, 0, 0, kInfinite, &timedOut, &delivered), kXFail);
    EXPECT_EQ(std::pair(timedOut, delivered), std::pair(false, true));

    // The body has returned, so a new run may start, without a Wait() in between.
    ASSERT_TRUE(t.Start());
    EXPECT_EQ(t.SendCommand(1, 0, 0, kInfinite), kXFail);
}

TEST(XThread, TimedOutCommandIsFinishedLaterAndItsLateAnswerReachesNobody) {
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    TestThread t([&](TestThread& self) {
        return self.Serve([&](const XCommand& c) -> XResult {
            if (c.nCommand == 2) opened.wait();
            return 100 + c.nCommand;
        });
    });
    ASSERT_TRUE(t.Start());
    bool timedOut = false, delivered = false;
    EXPECT_EQ(t.SendCommand(2, 0, 0, 20, &timedOut, &delivered), kXFail);
    EXPECT_EQ(std::pair(timedOut, delivered), std::pair(true, true));  // the thread took the job
    // Still busy: a command with no time to wait is not handed over.
    EXPECT_EQ(t.SendCommand(3, 0, 0, 0, &timedOut, &delivered), kXFail);
    EXPECT_EQ(std::pair(timedOut, delivered), std::pair(true, false));

    // A sender that waits without limit gets its own answer, not the late 102.
    auto waiting =
        std::async(std::launch::async, [&] { return t.SendCommand(4, 0, 0, kInfinite); });
    gate.set_value();
    EXPECT_EQ(waiting.get(), 104u);
    EXPECT_TRUE(t.WaitIdle(kInfinite));
}

TEST(XThread, FullWidthCommandsOfConcurrentSendersGetTheirOwnAnswers) {
    TestThread t([](TestThread& self) { return self.Serve(Checksum); });
    ASSERT_TRUE(t.Start());
    std::atomic<int> wrong{0}, answered{0};
    std::vector<std::thread> senders;
    for (uint32_t s = 0; s < 4; ++s) {
        senders.emplace_back([&, s] {
            for (uint64_t i = 0; i < 300; ++i) {
                const XCommand c{0xFFFFFFF0 + s, i * 0x9E3779B97F4A7C15ull, ~i << 32 | s};
                // Two senders give up at once, so late answers keep arriving for nobody; the
                // others wait long enough never to give up.
                bool timedOut = false;
                const XResult r =
                    t.SendCommand(c.nCommand, c.nParam1, c.nParam2, s % 2 ? 0 : 600000, &timedOut);
                if (r == kXFail && timedOut) continue;
                ++answered;
                if (r != Checksum(c)) ++wrong;
            }
        });
    }
    for (std::thread& sender : senders) sender.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_GE(answered.load(), 600);  // every sender that waits got through
}

TEST(XThread, SubclassStopsItsBodyInItsOwnDestructor) {
    for (int i = 0; i < 20; ++i) {
        TestThread worker([](TestThread& self) { return self.Serve(Checksum); });
        ASSERT_TRUE(worker.Start());
        if (i % 2) {
            EXPECT_EQ(worker.SendCommand(5, 6, 7, kInfinite), Checksum({5, 6, 7}));
        }
    }
    TestThread neverStarted(nullptr);  // destroying a worker without a thread must not block
}

}  // namespace
