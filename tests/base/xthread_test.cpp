#include "base/xthread.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr uint32_t kQuit = 99;

// A worker whose body is given by the test; the body's owner ends it before destruction.
class TestThread : public XThread {
public:
    explicit TestThread(std::function<uint32_t(TestThread&)> body) : m_body(std::move(body)) {}
    ~TestThread() override { Wait(); }

    using XThread::GetStartArg;
    using XThread::Reply;
    using XThread::WaitRequest;

    // Answers every command with `handler` until kQuit.
    uint32_t Serve(const std::function<XResult(const XCommand&)>& handler) {
        while (auto cmd = WaitRequest(kInfinite)) {
            if (cmd->nCommand == kQuit) {
                Reply(kXOk);
                return 0;
            }
            Reply(handler(*cmd));
        }
        return 1;
    }

protected:
    uint32_t ThreadMain() override { return m_body(*this); }

private:
    std::function<uint32_t(TestThread&)> m_body;
};

XResult Checksum(const XCommand& c) {
    return static_cast<XResult>(c.nCommand * 1000003u ^ c.nParam1 ^ (c.nParam2 >> 32));
}

TEST(XThread, StartIsRefusedWhileRunningAndCommandsFailWithoutABody) {
    // The body takes one command and returns without answering it.
    TestThread t([](TestThread& self) {
        self.WaitRequest(XThread::kInfinite);
        return 0u;
    });
    // Before the first start there is nobody to deliver to, and no wait for one.
    bool timedOut = true, delivered = true;
    EXPECT_EQ(t.SendCommand(1, 0, 0, XThread::kInfinite, &timedOut, &delivered), kXFail);
    EXPECT_FALSE(timedOut);
    EXPECT_FALSE(delivered);
    EXPECT_TRUE(t.IsIdle());
    EXPECT_TRUE(t.WaitIdle(0));
    EXPECT_EQ(t.GetThreadId(), 0u);

    ASSERT_TRUE(t.Start());
    EXPECT_TRUE(t.IsRunning());
    EXPECT_NE(t.GetThreadId(), 0u);
    EXPECT_FALSE(t.Start());

    // The caller is woken by the end of the body instead of waiting forever for an answer.
    EXPECT_EQ(t.SendCommand(1, 0, 0, XThread::kInfinite, &timedOut, &delivered), kXFail);
    EXPECT_FALSE(timedOut);
    EXPECT_TRUE(delivered);
    EXPECT_FALSE(t.IsRunning());
    EXPECT_TRUE(t.IsIdle());
    EXPECT_EQ(t.GetThreadId(), 0u);
    EXPECT_EQ(t.SendCommand(1, 0, 0, XThread::kInfinite, nullptr, &delivered), kXFail);
    EXPECT_FALSE(delivered);

    // A second run, without an explicit Wait() in between.
    int arg = 0;
    ASSERT_TRUE(t.Start(&arg));
    EXPECT_EQ(t.SendCommand(1, 0, 0, 1000), kXFail);
    t.Wait();
    EXPECT_FALSE(t.IsRunning());
}

TEST(XThread, CommandsRoundTripWithFullWidthParameters) {
    void* seenArg = nullptr;
    std::vector<XCommand> seen;
    TestThread t([&](TestThread& self) {
        seenArg = self.GetStartArg();
        return self.Serve([&](const XCommand& c) {
            seen.push_back(c);
            return Checksum(c);
        });
    });
    int arg = 0;
    ASSERT_TRUE(t.Start(&arg));
    const std::vector<XCommand> sent = {
        {7, 0x1122334455667788ull, 0xFFFFFFFF00000001ull}, {8, 0, 0}, {0xFFFFFFFE, ~0ull, 1}};
    for (const XCommand& c : sent) {
        bool timedOut = true, delivered = false;
        EXPECT_EQ(t.SendCommand(c.nCommand, c.nParam1, c.nParam2, 1000, &timedOut, &delivered),
                  Checksum(c));
        EXPECT_FALSE(timedOut);
        EXPECT_TRUE(delivered);
        EXPECT_TRUE(t.IsIdle());
    }
    EXPECT_EQ(t.SendCommand(kQuit, 0, 0, XThread::kInfinite), kXOk);
    t.Wait();
    EXPECT_EQ(seenArg, &arg);
    ASSERT_EQ(seen.size(), sent.size());
    for (size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(seen[i].nCommand, sent[i].nCommand);
        EXPECT_EQ(seen[i].nParam1, sent[i].nParam1);
        EXPECT_EQ(seen[i].nParam2, sent[i].nParam2);
    }
}

TEST(XThread, TimedOutCommandFinishesLaterAndItsLateAnswerReachesNobody) {
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    TestThread t([&](TestThread& self) {
        return self.Serve([&](const XCommand& c) -> XResult {
            if (c.nCommand == 2) {
                opened.wait();
                return 222;
            }
            return 100 + c.nCommand;
        });
    });
    ASSERT_TRUE(t.Start());

    bool timedOut = false, delivered = false;
    EXPECT_EQ(t.SendCommand(2, 0, 0, 20, &timedOut, &delivered), kXFail);
    EXPECT_TRUE(timedOut);
    EXPECT_TRUE(delivered);  // the thread took the job
    EXPECT_FALSE(t.IsIdle());
    EXPECT_FALSE(t.WaitIdle(0));

    // Still busy: a command with no time to wait is not handed over.
    EXPECT_EQ(t.SendCommand(3, 0, 0, 0, &timedOut, &delivered), kXFail);
    EXPECT_TRUE(timedOut);
    EXPECT_FALSE(delivered);

    // A sender that waits for idle without limit gets its own answer, not the late 222.
    auto waiting =
        std::async(std::launch::async, [&] { return t.SendCommand(4, 0, 0, XThread::kInfinite); });
    gate.set_value();
    EXPECT_EQ(waiting.get(), 104u);
    EXPECT_TRUE(t.WaitIdle(XThread::kInfinite));
    EXPECT_TRUE(t.IsIdle());
    EXPECT_EQ(t.SendCommand(5, 0, 0, 1000), 105u);
    EXPECT_EQ(t.SendCommand(kQuit, 0, 0, XThread::kInfinite), kXOk);
}

TEST(XThread, ConcurrentSendersNeverTakeEachOthersAnswers) {
    TestThread t([](TestThread& self) { return self.Serve(Checksum); });
    ASSERT_TRUE(t.Start());
    std::atomic<int> wrong{0}, answered{0};
    std::vector<std::thread> senders;
    for (uint32_t s = 0; s < 4; ++s) {
        senders.emplace_back([&, s] {
            for (uint64_t i = 0; i < 300; ++i) {
                const XCommand c{s + 1, i * 0x9E3779B97F4A7C15ull, (i << 32) | s};
                // Two senders give up quickly, so late answers keep arriving for nobody.
                const uint32_t limit = (s % 2) ? 0 : XThread::kInfinite;
                bool timedOut = false;
                const XResult r = t.SendCommand(c.nCommand, c.nParam1, c.nParam2, limit, &timedOut);
                if (r == kXFail && timedOut) continue;
                ++answered;
                if (r != Checksum(c)) ++wrong;
            }
        });
    }
    for (std::thread& sender : senders) sender.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_GE(answered.load(), 600);  // every sender without a limit got through
    EXPECT_EQ(t.SendCommand(kQuit, 0, 0, XThread::kInfinite), kXOk);
}

TEST(XThread, BodyEndingWithCommandsWaitingFailsEverySender) {
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    TestThread t([&](TestThread& self) {
        self.WaitRequest(XThread::kInfinite);
        opened.wait();
        return 0u;  // neither the taken command nor the queued sender is answered
    });
    ASSERT_TRUE(t.Start());
    auto first =
        std::async(std::launch::async, [&] { return t.SendCommand(1, 0, 0, XThread::kInfinite); });
    while (t.IsIdle()) std::this_thread::yield();
    auto second =
        std::async(std::launch::async, [&] { return t.SendCommand(2, 0, 0, XThread::kInfinite); });
    gate.set_value();
    EXPECT_EQ(first.get(), kXFail);
    EXPECT_EQ(second.get(), kXFail);
}

// A worker in the shape the engine and the caches use: its body touches members of the derived
// class up to the moment it returns, so the derived destructor must stop and join it.
class PollingWorker : public XThread {
public:
    ~PollingWorker() override {
        m_bStop = true;
        Wait();
    }

protected:
    uint32_t ThreadMain() override {
        while (!m_bStop) {
            if (auto cmd = WaitRequest(1)) {
                m_log.push_back(std::to_string(cmd->nCommand));
                Reply(static_cast<XResult>(m_log.size()));
            }
            m_log.emplace_back("tick");
            if (m_log.size() > 64) m_log.erase(m_log.begin(), m_log.begin() + 32);
        }
        m_log.emplace_back("stopped");  // runs after the destructor body started
        return 0;
    }

private:
    std::atomic<bool> m_bStop{false};
    std::vector<std::string> m_log;  // destroyed before ~XThread runs
};

TEST(XThread, SubclassStopsItsBodyInItsOwnDestructor) {
    for (int i = 0; i < 20; ++i) {
        auto worker = std::make_unique<PollingWorker>();
        ASSERT_TRUE(worker->Start());
        if (i % 2) {
            EXPECT_NE(worker->SendCommand(5, 0, 0, XThread::kInfinite), kXFail);
        }
        worker.reset();
    }
    PollingWorker neverStarted;  // destroying a worker without a thread must not block
}

}  // namespace
