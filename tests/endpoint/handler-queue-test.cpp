// The queue of handlers: one at a time, in order, and a safe end.

#include "handler-queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <string>
#include <vector>

namespace {

class FunctionTask final : public HandlerTask {
public:
    FunctionTask(std::function<void()> run, std::function<void()> abandon)
        : m_run(std::move(run)), m_abandon(std::move(abandon))
    {
    }
    void Run() override { m_run(); }
    void Abandon() override { m_abandon(); }

private:
    const std::function<void()> m_run;
    const std::function<void()> m_abandon;
};

// An executor that keeps what it is given until the test calls it.
struct Kept {
    HandlerQueue::Executor Executor()
    {
        return [this](std::function<void()> function) { functions.push_back(std::move(function)); };
    }
    std::vector<std::function<void()>> functions;
};

class AHandlerQueue : public testing::Test {
protected:
    void TearDown() override { m_queue->Close(); }

    void Post(std::function<void()> run, const std::string& name = "")
    {
        m_queue->Post(
            std::make_unique<FunctionTask>(std::move(run), [this, name] { m_abandoned += name; }));
    }

    // Returns when all that was posted before has run.
    void Settle()
    {
        std::promise<void> settled;
        Post([&settled] { settled.set_value(); });
        settled.get_future().wait();
    }

    const std::shared_ptr<HandlerQueue> m_queue = std::make_shared<HandlerQueue>();
    std::string m_abandoned;
};

TEST_F(AHandlerQueue, RunsTasksInOrderInAThreadOfItsOwn)
{
    m_queue->Open({});
    std::string done;
    std::thread::id thread;
    for (const char* name : {"a", "b", "c"})
        Post([&, name] {
            done += name;
            thread = std::this_thread::get_id();
        });
    Settle();
    EXPECT_EQ("abc", done);
    EXPECT_NE(std::this_thread::get_id(), thread);
}

TEST_F(AHandlerQueue, RunsNothingBeforeItIsOpen)
{
    Kept kept;
    bool done = false;
    Post([&done] { done = true; });
    EXPECT_TRUE(kept.functions.empty());
    m_queue->Open(kept.Executor());
    ASSERT_EQ(1U, kept.functions.size());
    kept.functions[0]();
    EXPECT_TRUE(done);
}

TEST_F(AHandlerQueue, HandsOneTaskAtATimeToAnExecutor)
{
    Kept kept;
    m_queue->Open(kept.Executor());
    std::string done;
    Post([&done] { done += "a"; });
    Post([&done] { done += "b"; });
    ASSERT_EQ(1U, kept.functions.size());
    kept.functions[0]();
    EXPECT_EQ("a", done);
    ASSERT_EQ(2U, kept.functions.size());
    kept.functions[1]();
    EXPECT_EQ("ab", done);
    EXPECT_EQ(2U, kept.functions.size());
}

TEST_F(AHandlerQueue, AbandonsInOrderWhatHasNotBegunWhenItIsClosed)
{
    Kept kept;
    m_queue->Open(kept.Executor());
    bool ran = false;
    Post([&ran] { ran = true; }, "a");
    Post([&ran] { ran = true; }, "b");
    m_queue->Close();
    EXPECT_EQ("ab", m_abandoned);
    kept.functions[0]();
    EXPECT_FALSE(ran);
}

TEST_F(AHandlerQueue, AbandonsAtOnceWhatComesAfterItWasClosed)
{
    m_queue->Open({});
    m_queue->Close();
    Post([] { FAIL(); }, "late");
    EXPECT_EQ("late", m_abandoned);
}

TEST_F(AHandlerQueue, WaitsForTheTaskThatRunsWhenItIsClosed)
{
    m_queue->Open({});
    std::promise<void> begun;
    std::promise<void> go_on;
    std::atomic<bool> ended{false};
    Post([&] {
        begun.set_value();
        go_on.get_future().wait();
        ended = true;
    });
    begun.get_future().wait();
    std::atomic<bool> ended_at_close{false};
    std::thread closer([&] {
        m_queue->Close();
        ended_at_close = ended.load();
    });
    go_on.set_value();
    closer.join();
    EXPECT_TRUE(ended_at_close);
}

TEST_F(AHandlerQueue, WaitsForTheTaskThatAnExecutorRunsWhenItIsClosed)
{
    Kept kept;
    m_queue->Open(kept.Executor());
    std::promise<void> begun;
    std::promise<void> go_on;
    std::atomic<bool> ended{false};
    Post([&] {
        begun.set_value();
        go_on.get_future().wait();
        ended = true;
    });
    std::thread executor(kept.functions.at(0));
    begun.get_future().wait();
    std::atomic<bool> ended_at_close{false};
    std::thread closer([&] {
        m_queue->Close();
        ended_at_close = ended.load();
    });
    // Closing has begun when a new task is abandoned by the one who posts it.
    while (m_abandoned.empty())
        Post([] {}, "probe");
    go_on.set_value();
    closer.join();
    executor.join();
    EXPECT_TRUE(ended_at_close);
}

TEST_F(AHandlerQueue, RunsNoTaskThatWaitsBehindTheOneThatRunsWhenItIsClosed)
{
    m_queue->Open({});
    std::promise<void> begun;
    std::promise<void> go_on;
    Post([&] {
        begun.set_value();
        go_on.get_future().wait();
    });
    Post([] { FAIL(); }, "waiting");
    begun.get_future().wait();
    std::thread closer([this] { m_queue->Close(); });
    // Closing has begun when a new task is abandoned by the one who posts it.
    while (m_abandoned.empty())
        Post([] {}, "probe");
    go_on.set_value();
    closer.join();
    EXPECT_NE(std::string::npos, m_abandoned.find("waiting"));
}

TEST_F(AHandlerQueue, KnowsWhoIsInsideATask)
{
    m_queue->Open({});
    Kept kept;
    const auto other = std::make_shared<HandlerQueue>();
    other->Open(kept.Executor());
    std::vector<bool> inside;
    Post([&] {
        inside.push_back(m_queue->IsInside());
        inside.push_back(other->IsInside());
        // A task of another queue, run by the same thread in the middle of this one.
        other->Post(std::make_unique<FunctionTask>(
            [&] {
                inside.push_back(m_queue->IsInside());
                inside.push_back(other->IsInside());
            },
            [] {}));
        kept.functions.back()();
        inside.push_back(other->IsInside());
    });
    Settle();
    EXPECT_EQ((std::vector<bool>{true, false, true, true, false}), inside);
    EXPECT_FALSE(m_queue->IsInside());
    other->Close();
}

TEST_F(AHandlerQueue, CountsWhatItAbandonsAsInside)
{
    std::vector<bool> inside;
    const auto note = [&] { inside.push_back(m_queue->IsInside()); };
    m_queue->Post(std::make_unique<FunctionTask>([] {}, note));
    m_queue->Close();
    std::deque<HandlerQueue::Task> left;
    left.push_back(std::make_unique<FunctionTask>([] {}, note));
    m_queue->Abandon(left);
    EXPECT_EQ((std::vector<bool>{true, true}), inside);
    EXPECT_FALSE(m_queue->IsInside());
}

}  // namespace
