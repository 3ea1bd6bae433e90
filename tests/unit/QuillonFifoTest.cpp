// The heartbeat queue: blocks come out in order, as copies, one owned by the
// consumer at a time; size lines mark each new thousand; a producer and a
// consumer on two threads lose nothing.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "UnitUtil.h"
#include "client/CNewQuillonFifo.h"
#include "platform/DebugOutput.h"
#include "platform/Kernel.h"

namespace {

std::string Text(const BYTE* data, int len) {
    return std::string(reinterpret_cast<const char*>(data), static_cast<size_t>(len));
}

int Add(CNewQuillonFifo& fifo, const std::string& s) {
    return fifo.AddFifo(reinterpret_cast<const BYTE*>(s.data()), static_cast<int>(s.size()));
}

// The next block's text, or "(none)".
std::string Next(CNewQuillonFifo& fifo) {
    int len = 0;
    const BYTE* p = fifo.GetFifo(len);
    return p ? Text(p, len) : "(none)";
}

TEST(QuillonFifo, BlocksComeOutInOrderAsCopiesAndNothingIsQueuedForNullOrEmptyBlocks) {
    CNewQuillonFifo fifo;
    int len = -7;
    EXPECT_EQ(nullptr, fifo.GetFifo(len));
    EXPECT_EQ(-7, len) << "an empty queue leaves the length alone";
    const BYTE byte = 1;
    EXPECT_EQ(0, fifo.AddFifo(nullptr, 4));
    EXPECT_EQ(0, fifo.AddFifo(&byte, 0));
    EXPECT_EQ(0, fifo.AddFifo(&byte, -3));
    EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), KvnWaitForSingleObject(fifo.GetEventNotEmpty(), 0));

    char first[] = "first block";
    EXPECT_EQ(1, fifo.AddFifo(reinterpret_cast<BYTE*>(first), 11));
    first[0] = 'X';  // the queue holds its own copy
    EXPECT_EQ(2, Add(fifo, "second"));
    EXPECT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), KvnWaitForSingleObject(fifo.GetEventNotEmpty(), 0));
    const BYTE* b = fifo.GetFifo(len);
    ASSERT_NE(nullptr, b);
    EXPECT_EQ("first block", Text(b, len));
    EXPECT_EQ(1, fifo.GetSize());
    // The block handed out last stays valid until the next GetFifo.
    EXPECT_EQ(2, Add(fifo, "3"));
    EXPECT_EQ("first block", Text(b, len));
    EXPECT_EQ("second", Next(fifo));
    EXPECT_EQ("3", Next(fifo));
    EXPECT_EQ("(none)", Next(fifo));

    // Reset empties the queue and the block handed out; the queue works on.
    for (int i = 0; i < 5; ++i) Add(fifo, "block " + std::to_string(i));
    ASSERT_EQ("block 0", Next(fifo));
    fifo.ResetFifo();
    EXPECT_EQ(0, fifo.GetSize());
    EXPECT_EQ("(none)", Next(fifo));
    EXPECT_EQ(1, Add(fifo, "after"));
    EXPECT_EQ("after", Next(fifo));
    // Destroyed with blocks still queued: the sanitizer builds see no leak.
    Add(fifo, "left");
    Add(fifo, "behind");
}

TEST(QuillonFifo, ASizeLineMarksEachNewThousand) {
    kvntest::CapturedTexts lines;
    KvnSetDebugOutputHook(&kvntest::CapturedTexts::Hook, &lines);
    auto sizeLines = [&] { return lines.Containing(L"element dans le fifo"); };
    {
        CNewQuillonFifo fifo;
        const BYTE block[16] = {};
        auto add = [&](int n) {
            for (int i = 0; i < n; ++i) fifo.AddFifo(block, 16);
        };
        add(999);
        EXPECT_TRUE(sizeLines().empty());
        add(1);
        add(1000);
        EXPECT_EQ(sizeLines(), (std::vector<std::wstring>{L"\r\n 1000 element dans le fifo  ",
                                                          L"\r\n 2000 element dans le fifo  "}));
        // The threshold never comes down: draining to 500 and climbing back
        // to 2999 writes nothing more.
        for (int i = 0; i < 1500; ++i) Next(fifo);
        add(2499);
        EXPECT_EQ(2999, fifo.GetSize());
        EXPECT_EQ(2u, sizeLines().size());
        add(1);
        EXPECT_EQ(3u, sizeLines().size());
    }
    KvnSetDebugOutputHook(nullptr, nullptr);
}

TEST(QuillonFifo, AProducerAndAConsumerOnTwoThreadsLoseNothing) {
    CNewQuillonFifo fifo;
    const int count = 20000;
    std::thread producer([&] {
        for (int i = 0; i < count; ++i) {
            int value = i;
            fifo.AddFifo(reinterpret_cast<const BYTE*>(&value), sizeof value);
        }
    });
    int expected = 0;
    while (expected < count) {
        int len = 0;
        const BYTE* p = fifo.GetFifo(len);
        if (p == nullptr) {
            // Waits for the producer instead of spinning.
            KvnWaitForSingleObject(fifo.GetEventNotEmpty(), 100);
            continue;
        }
        ASSERT_EQ(static_cast<int>(sizeof(int)), len);
        int value = 0;
        std::memcpy(&value, p, sizeof value);
        ASSERT_EQ(expected, value);
        ++expected;
    }
    producer.join();
    EXPECT_EQ(0, fifo.GetSize());
}

}  // namespace
