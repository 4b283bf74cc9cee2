#include "nats_peer.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "nats_server.h"

namespace qvtest {

NatsPeer::NatsPeer(const std::string& url) {
    natsOptions* raw_opts = nullptr;
    if (natsOptions_Create(&raw_opts) != NATS_OK) {
        return;
    }
    qv::nats_options_ptr opts(raw_opts);
    natsOptions_SetURL(raw_opts, url.c_str());
    natsOptions_SetSendAsap(raw_opts, true);
    if (url.rfind("tls://", 0) == 0) {
        natsOptions_SetSecure(raw_opts, true);
        natsOptions_LoadCATrustedCertificates(raw_opts, test_certificates().ca_cert.c_str());
    }
    natsConnection* raw = nullptr;
    if (natsConnection_Connect(&raw, raw_opts) == NATS_OK) {
        conn_.reset(raw);
    }
}

NatsPeer::Batch NatsPeer::send(const std::vector<Request>& requests) {
    Batch batch;
    batch.count = requests.size();
    natsInbox* inbox = nullptr;
    if (!conn_ || natsInbox_Create(&inbox) != NATS_OK) {
        ADD_FAILURE() << "no connection for the requests";
        return batch;
    }
    batch.inbox = inbox;
    natsInbox_Destroy(inbox);
    natsSubscription* sub = nullptr;
    EXPECT_EQ(natsConnection_SubscribeSync(&sub, conn_.get(), (batch.inbox + ".*").c_str()),
              NATS_OK);
    batch.replies.reset(sub);
    natsSubscription_SetPendingLimits(sub, -1, -1);
    for (size_t i = 0; i < requests.size(); ++i) {
        const auto& [subject, body] = requests[i];
        const std::string reply = batch.inbox + "." + std::to_string(i);
        EXPECT_EQ(natsConnection_PublishRequest(conn_.get(), subject.c_str(), reply.c_str(),
                                                body.data(), static_cast<int>(body.size())),
                  NATS_OK);
    }
    EXPECT_TRUE(flush());
    return batch;
}

std::vector<std::string> NatsPeer::collect(Batch& batch, std::chrono::milliseconds timeout) {
    std::vector<std::string> replies(batch.count);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    size_t open = batch.count;
    while (open > 0 && batch.replies) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            break;
        }
        natsMsg* raw = nullptr;
        if (natsSubscription_NextMsg(&raw, batch.replies.get(), left.count()) != NATS_OK) {
            continue;
        }
        qv::nats_msg_ptr msg(raw);
        const char* dot = strrchr(natsMsg_GetSubject(raw), '.');
        const size_t index = dot != nullptr ? strtoul(dot + 1, nullptr, 10) : batch.count;
        if (index >= batch.count || natsMsg_IsNoResponders(raw) || !replies[index].empty()) {
            continue;
        }
        replies[index].assign(natsMsg_GetData(raw),
                              static_cast<size_t>(natsMsg_GetDataLength(raw)));
        if (!replies[index].empty()) {
            open--;
        }
    }
    return replies;
}

std::vector<std::string> NatsPeer::request_all(const std::vector<Request>& requests,
                                               std::chrono::milliseconds timeout) {
    Batch batch = send(requests);
    return collect(batch, timeout);
}

void NatsPeer::subscribe_silently(const std::vector<std::string>& subjects) {
    for (const std::string& subject : subjects) {
        natsSubscription* sub = nullptr;
        EXPECT_EQ(natsConnection_SubscribeSync(&sub, conn_.get(), subject.c_str()), NATS_OK)
            << subject;
        silent_.emplace_back(sub);
    }
    EXPECT_TRUE(flush());
}

std::vector<int> NatsPeer::pending() const {
    std::vector<int> counts;
    for (const auto& sub : silent_) {
        int msgs = 0;
        natsSubscription_GetPending(sub.get(), &msgs, nullptr);
        counts.push_back(msgs);
    }
    return counts;
}

void NatsPeer::watch_everything() {
    natsSubscription* sub = nullptr;
    EXPECT_EQ(natsConnection_SubscribeSync(&sub, conn_.get(), ">"), NATS_OK);
    watch_.reset(sub);
    natsSubscription_SetPendingLimits(sub, -1, -1);
    EXPECT_TRUE(flush());
}

std::vector<std::string> NatsPeer::watched_until(const std::string& marker,
                                                 std::chrono::milliseconds timeout) {
    std::vector<std::string> seen;
    if (!watch_) {
        ADD_FAILURE() << "nothing is watched";
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (watch_) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        natsMsg* raw = nullptr;
        if (left.count() <= 0 ||
            natsSubscription_NextMsg(&raw, watch_.get(), left.count()) != NATS_OK) {
            ADD_FAILURE() << "the marker '" << marker << "' did not come";
            break;
        }
        qv::nats_msg_ptr msg(raw);
        const std::string subject = natsMsg_GetSubject(raw);
        if (subject == marker) {
            break;
        }
        seen.push_back(subject);
    }
    return seen;
}

void NatsPeer::publish(const std::string& subject, const std::string& body) {
    EXPECT_EQ(natsConnection_Publish(conn_.get(), subject.c_str(), body.data(),
                                     static_cast<int>(body.size())),
              NATS_OK);
}

bool NatsPeer::flush() {
    return conn_ && natsConnection_FlushTimeout(conn_.get(), 10000) == NATS_OK;
}

}  // namespace qvtest
