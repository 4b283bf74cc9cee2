#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "log_capture.h"
#include "qv_pqueue.h"
#include "qv_test_util.h"

namespace {

// "<kind><time-based UUID in lower case>.dat"
bool is_element_name(const std::string& name, char kind) {
    return name.size() == 41 && name[0] == kind && name.compare(37, 4, ".dat") == 0 &&
           qvtest::is_time_uuid(name.substr(1, 36));
}

const std::string kUuid = "1b4e28ba-2fa1-11d2-883f-0016d3cca427";
const std::string kUuid2 = "2fa1aaaa-2fa1-11d2-883f-0016d3cca427";

using qvtest::list_dir;

void set_age(const std::string& path, long seconds_ago) {
    EXPECT_TRUE(qvtest::set_age(path, seconds_ago)) << path;
}

std::string text_of(const qv_pqueue_data& element) {
    return std::string(reinterpret_cast<const char*>(element.data.data()), element.datalen);
}

struct PQueue : ::testing::Test {
    qvtest::TempDir run;
    qvtest::LogCapture log;

    std::unique_ptr<qv_pqueue> open(const char* name, uint64_t max_elements = 5000,
                                    uint64_t max_size = 1000000, int flags = O_CREAT) {
        return qv_pqueue_open(run.path().c_str(), name, max_elements, max_size, flags, RINGBUFFER);
    }
    static int push(qv_pqueue* q, char prefix, const std::string& text) {
        return qv_pqueue_push(q, prefix, text.data(), text.size());
    }
};

}  // namespace

TEST_F(PQueue, LayoutLimitsAndTheFullQueue) {
    auto q = qv_pqueue_open(run.path().c_str(), "full.pq", 3, 100, O_CREAT, FAIL);
    ASSERT_TRUE(q);
    EXPECT_EQ(qvtest::read_file(run / "full.pq/control"), "3\n100\n2\n");
    ASSERT_EQ(push(q.get(), 'L', "{\"a\":1}"), 0);
    const auto names = list_dir(q->queue_data_dir);
    ASSERT_EQ(names.size(), 1u);
    EXPECT_TRUE(is_element_name(names[0], 'L')) << names[0];
    EXPECT_EQ(qvtest::read_file(q->queue_data_dir + "/" + names[0]), "{\"a\":1}");

    // An element a consumer holds still takes its place; reopened with other limits, the queue
    // keeps those of its control file.
    qvtest::write_file(q->queue_data_dir + "/claimed_77_E" + kUuid + ".dat", "taken");
    ASSERT_EQ(push(q.get(), 'L', "two"), 0);
    const auto full = list_dir(q->queue_data_dir);
    auto again = qv_pqueue_open(run.path().c_str(), "full.pq", 1000, 100000, O_CREAT, RINGBUFFER);
    ASSERT_TRUE(again);
    EXPECT_EQ(push(again.get(), 'L', "x"), -1);
    EXPECT_EQ(list_dir(q->queue_data_dir), full);
}

TEST_F(PQueue, PopAndClaimTakeWhatTheyShould) {
    auto q = open("take.pq");
    ASSERT_EQ(push(q.get(), 'L', "newer"), 0);
    ASSERT_EQ(push(q.get(), 'L', "older"), 0);
    ASSERT_EQ(push(q.get(), 'E', "event"), 0);
    for (const std::string& name : list_dir(q->queue_data_dir)) {
        const std::string path = q->queue_data_dir + "/" + name;
        set_age(path, qvtest::read_file(path) == "older" ? 100 : 10);
    }
    qvtest::write_file(q->queue_data_dir + "/temp_L" + kUuid + ".dat", "half");
    qvtest::write_file(q->queue_data_dir + "/claimed_1_L" + kUuid + ".dat", "theirs");

    auto popped = qv_pqueue_pop(q.get(), 'L');
    ASSERT_TRUE(popped);
    EXPECT_EQ(text_of(*popped), "older");
    EXPECT_TRUE(qvtest::file_exists(popped->id));  // deleting it is the caller's business

    // Claims skip temporary files and everybody's claimed files.
    std::vector<std::unique_ptr<qv_pqueue_data>> batch;
    ASSERT_EQ(qv_pqueue_lock(q.get()), 0);
    ASSERT_EQ(qv_pqueue_claim_batch(q.get(), "L", 128, &batch), 2);
    const std::string mine = q->queue_data_dir + "/claimed_" + std::to_string(getpid()) + "_";
    for (const auto& element : batch) {
        EXPECT_EQ(element->id, mine + element->restore_id.substr(q->queue_data_dir.size() + 1));
        EXPECT_FALSE(qvtest::file_exists(element->restore_id));
    }
    ASSERT_EQ(qv_pqueue_claim_batch(q.get(), "LE", 128, &batch), 1);
    EXPECT_EQ(batch[0]->prefix, 'E');
    EXPECT_EQ(qv_pqueue_claim_batch(q.get(), "LE", 128, &batch), 0);
    EXPECT_EQ(qv_pqueue_unlock(q.get()), 0);
}

TEST_F(PQueue, ReclaimReturnsOldClaimsWithParsableNames) {
    auto q = open("reclaim.pq");
    const std::string data = q->queue_data_dir + "/";
    const std::vector<std::string> claims = {"claimed_1234_E" + kUuid + ".dat",
                                             "claimed_x_E" + kUuid2 + ".dat",
                                             "claimed_55_X" + kUuid2 + ".dat"};
    for (const std::string& name : claims) {
        qvtest::write_file(data + name, name);
        set_age(data + name, 7200);
    }
    const std::string young = "claimed_66_L" + kUuid2 + ".dat";
    qvtest::write_file(data + young, "young");
    set_age(data + young, 60);

    auto holder = open("reclaim.pq");
    ASSERT_EQ(qv_pqueue_lock(holder.get()), 0);
    EXPECT_EQ(qv_pqueue_reclaim_stale_claims(q.get(), 3600), 0);
    ASSERT_EQ(qv_pqueue_unlock(holder.get()), 0);

    EXPECT_EQ(qv_pqueue_reclaim_stale_claims(q.get(), 3600), 1);
    EXPECT_EQ(qvtest::read_file(data + "E" + kUuid + ".dat"), claims[0]);
    EXPECT_EQ(list_dir(q->queue_data_dir),
              (std::vector<std::string>{"E" + kUuid + ".dat", claims[2], young, claims[1]}));
}

namespace {

// Drains the queue until a claim finds nothing; returns the texts this consumer got.
std::vector<std::string> s_consume(qv_pqueue* q, bool use_lock) {
    std::vector<std::string> got;
    while (true) {
        if (use_lock && qv_pqueue_lock(q) != 0) {
            std::this_thread::yield();
            continue;
        }
        std::vector<std::unique_ptr<qv_pqueue_data>> batch;
        const int n = qv_pqueue_claim_batch(q, "LE", 16, &batch);
        if (use_lock) {
            qv_pqueue_unlock(q);
        }
        if (n <= 0) {
            return got;
        }
        for (const auto& element : batch) {
            EXPECT_EQ(qv_pqueue_data_read(element.get()), 0);
            got.push_back(text_of(*element));
            unlink(element->id.c_str());
        }
    }
}

std::multiset<std::string> s_push_numbered(qv_pqueue* q, int count) {
    std::multiset<std::string> pushed;
    for (int i = 0; i < count; ++i) {
        const std::string text = "entry-" + std::to_string(i);
        EXPECT_EQ(qv_pqueue_push(q, i % 3 == 0 ? 'E' : 'L', text.data(), text.size()), 0);
        pushed.insert(text);
    }
    return pushed;
}

}  // namespace

// Consumers with and without the lock, sharing a handle or not: whoever renames an element
// first owns it, so every element reaches exactly one of them.
TEST_F(PQueue, ConcurrentThreadsClaimEveryElementOnce) {
    for (bool use_lock : {true, false}) {
        auto a = open("threads.pq");
        auto b = open("threads.pq");
        const auto pushed = s_push_numbered(a.get(), 400);
        std::vector<std::string> results[3];
        qv_pqueue* handles[3] = {a.get(), a.get(), b.get()};
        std::vector<std::thread> threads;
        for (int i = 0; i < 3; ++i) {
            threads.emplace_back([&, i] { results[i] = s_consume(handles[i], use_lock); });
        }
        std::multiset<std::string> seen;
        for (int i = 0; i < 3; ++i) {
            threads[i].join();
            seen.insert(results[i].begin(), results[i].end());
        }
        EXPECT_EQ(seen, pushed) << (use_lock ? "locked" : "racing");
    }
}

TEST_F(PQueue, ConcurrentProcessesClaimEveryElementOnce) {
    std::string tool = std::string(QV_BIN_DIR) + "/qv_test_queue_tool";
    for (std::string mode : {"lock", "nolock"}) {
        std::string qname = "procs-" + mode + ".pq";
        auto q = open(qname.c_str());
        const auto pushed = s_push_numbered(q.get(), 600);
        std::vector<std::string> outputs = {run / (qname + ".0"), run / (qname + ".1")};
        std::vector<pid_t> pids;
        for (std::string& out : outputs) {
            std::string cmd = "claim", dir = run.path();
            char* argv[] = {tool.data(), cmd.data(),  dir.data(), qname.data(),
                            out.data(),  mode.data(), nullptr};
            pid_t pid = -1;
            ASSERT_EQ(posix_spawn(&pid, tool.c_str(), nullptr, nullptr, argv, environ), 0);
            pids.push_back(pid);
        }
        std::multiset<std::string> seen;
        for (size_t i = 0; i < pids.size(); ++i) {
            int status = 0;
            ASSERT_EQ(waitpid(pids[i], &status, 0), pids[i]);
            EXPECT_EQ(status, 0);
            const std::string text = qvtest::read_file(outputs[i]);
            for (size_t at = 0, nl; (nl = text.find('\n', at)) != std::string::npos; at = nl + 1) {
                seen.insert(text.substr(at, nl - at));
            }
        }
        EXPECT_EQ(seen, pushed) << mode;
        EXPECT_TRUE(list_dir(q->queue_data_dir).empty());
    }
}
