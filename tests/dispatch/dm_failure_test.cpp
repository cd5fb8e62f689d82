#include "dm_support.hpp"
#include "support/failing.hpp"

#include <sys/resource.h>

using namespace qel_test;

namespace {

void ignore_job(qel_dm_handle, std::uint64_t, std::uint64_t) {}
void ignore_timer(qel_dm_handle, qel_dm_timer, void*) {}
void ignore_fd(qel_dm_handle, std::uint32_t, std::uint32_t, void*) {}
void ignore_message(qel_dm_handle, void*, std::uint64_t) {}

bool worked_or_no_memory(int error) {
    EXPECT_TRUE(error == 0 || error == ENOMEM) << error;
    return error == 0;
}

}  // namespace

TEST(DispatcherFailures, each_allocation_may_fail) {
    const int descriptors = open_descriptors();
    int failures = fail_each_allocation([] {
        qel_dm_handle handle = 0;
        if (!worked_or_no_memory(qel_dm_create(&handle, nullptr, QEL_DM_PRIVATE))) {
            EXPECT_EQ(handle, 0u);
            return;
        }
        Pipe pipe;
        // 100 of each, so that the chunk pool, the set and the heap have to grow.
        for (int i = 0; i < 100; ++i) {
            qel_dm_timer timer = nullptr;
            timespec hour{3600, 0};
            worked_or_no_memory(qel_dm_execute(handle, ignore_job, 0, 0));
            if (worked_or_no_memory(qel_dm_timer_register(handle, &timer, ignore_timer, nullptr))) {
                EXPECT_EQ(qel_dm_timer_settime(handle, timer, &hour), 0);
            } else {
                EXPECT_EQ(timer, nullptr);
            }
        }
        worked_or_no_memory(qel_dm_fd_register(handle, pipe.reader(), QEL_DM_READABLE, ignore_fd, nullptr));
        EXPECT_EQ(qel_dm_message_register(handle, ignore_message, nullptr), 0);
        if (!worked_or_no_memory(qel_dm_message_send(handle, 1, 1, nullptr))) {
            EXPECT_EQ(qel_dm_message_receive(handle, nullptr, nullptr, nullptr), EAGAIN);
        }
        std::thread([&] {
            if (worked_or_no_memory(qel_dm_wait(handle))) {
                EXPECT_EQ(qel_dm_dispatch(handle), 0);
            }
        }).join();
        EXPECT_EQ(qel_dm_destroy(&handle), 0);
    });
    EXPECT_GT(failures, 5);
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(DispatcherFailures, creation_without_descriptors_or_ids_gives_the_error) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const int descriptors = open_descriptors();
    int next = dup(0);
    close(next);
    for (int room = 0; room < 3; ++room) {
        rlimit tight{static_cast<rlim_t>(next + room), limit.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
        qel_dm_handle handle = 7;
        EXPECT_EQ(qel_dm_create(&handle, nullptr, QEL_DM_PRIVATE), EMFILE);
        EXPECT_EQ(handle, 0u);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    EXPECT_EQ(open_descriptors(), descriptors);
    std::vector<qel_dm_handle> handles(32);
    for (qel_dm_handle& handle : handles) EXPECT_EQ(qel_dm_create(&handle, nullptr, QEL_DM_PRIVATE), 0);
    qel_dm_handle more = 0;
    EXPECT_EQ(qel_dm_create(&more, nullptr, QEL_DM_PRIVATE), ENOMEM);
    for (qel_dm_handle& handle : handles) EXPECT_EQ(qel_dm_destroy(&handle), 0);
}

// The kernel refuses the wake-up: the job is taken back and its poster told; later ones get through.
TEST(DispatcherFailures, job_whose_wake_up_fails_is_not_queued) {
    const int lowest = dup(0);
    close(lowest);
    TestDispatcher dispatcher;
    const int write_end = lowest + 2;  // behind the event queue and the pipe's read end
    const int kept = dup(write_end);
    std::atomic<int> ran{0};
    Function count = [&] { ++ran; };
    {
        Servers servers{dispatcher.handle, 1};
        ASSERT_EQ(close(write_end), 0);
        // Until the server waits, a job needs no wake-up.
        int error = 0, queued = 0;
        EXPECT_TRUE(eventually([&] {
            error = execute(dispatcher.handle, count);
            queued += error == 0;
            return error != 0;
        }));
        EXPECT_EQ(error, EBADF);
        ASSERT_EQ(dup3(kept, write_end, O_CLOEXEC), write_end);
        EXPECT_EQ(execute(dispatcher.handle, count), 0);
        EXPECT_TRUE(eventually([&] { return ran.load() == queued + 1; }));
        EXPECT_EQ(qel_dm_destroy(&dispatcher.handle), 0);
        EXPECT_EQ(ran.load(), queued + 1);
    }
    close(kept);
}
