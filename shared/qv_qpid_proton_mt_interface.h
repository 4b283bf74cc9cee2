// AMQP 1.0 request/reply for several threads over one broker connection.
//
// One container thread runs the proton event loop and is the only thread that touches proton's
// links and connection; every other thread hands work to it through the connection's work queue.
// One sender (an anonymous link: each message names its own address in "to") publishes every
// outgoing message. One receiver per address buffers what arrives, keeping at most 50 messages
// outstanding (buffered plus credit), so a flood waits in the broker rather than in this process.
//
// Requests go out with a random UUID as id and the process's replies address as reply-to; the
// requesting thread waits on the replies receiver until the message at the front of its buffer
// carries its id as correlation id. Waiters only ever take the front, so replies for different
// requests are handed out in arrival order; replies nobody waits for any more (their request
// timed out, or they sat at the front longer than 5 s) are dropped when they reach the front.
// The replies address belongs to the process, so one process keeps one such client: a second
// one would share its replies queue with the first.
//
// Service handler threads take requests from a service address, call the service handler and
// send its reply to the request's reply-to. Message bodies are a sequence of the JSON text and,
// when there is a payload, its bytes.
//
// The run-time state hangs off the connection record's extra_params; qv_qpid_deinit closes the
// receivers (which ends the handler threads), stops the container and joins every thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <proton/connection.hpp>
#include <proton/message.hpp>
#include <proton/messaging_handler.hpp>
#include <proton/receiver.hpp>
#include <proton/sender.hpp>

#include "qv_nats_config.h"
#include "qv_request_reply_types.h"

namespace proton {
class work_queue;
class container;
}  // namespace proton

// The process's one outgoing link. send() may be called from any thread.
class qpid_sender : public proton::messaging_handler {
  public:
    // Called on the container thread each time the connection (re)opens, with `reconnected`.
    using connection_open_fn = std::function<void(proton::connection&, bool reconnected)>;

    explicit qpid_sender(connection_open_fn on_open);

    // Schedules the transfer on the container thread; false when there is no open connection to
    // hand it to.
    bool send(const proton::message& message);
    // Closes the link and the connection.
    void close();
    // Closes the connection, also one that never opened (container thread only).
    void close_connection();
    bool is_open() const { return open_.load(); }
    // The link itself: for the container thread only.
    proton::sender get_sender() const { return sender_; }
    proton::connection get_connection() const { return connection_; }
    // The connection's work queue, or null before the connection opened and after close().
    proton::work_queue* work_queue() const;
    // Forgets the work queue for good (the container is going away).
    void detach();

    void on_connection_open(proton::connection& connection) override;
    void on_sender_open(proton::sender& sender) override;
    void on_sendable(proton::sender& sender) override;
    void on_sender_close(proton::sender& sender) override;
    void on_transport_error(proton::transport& transport) override;
    void on_error(const proton::error_condition& error) override;

  private:
    connection_open_fn on_open_;
    std::atomic<bool> open_{false};
    std::atomic<bool> closing_{false};
    mutable std::mutex mutex_;
    proton::work_queue* work_queue_ = nullptr;  // guarded by mutex_
    bool detached_ = false;                     // guarded by mutex_
    proton::sender sender_;                     // container thread only
    proton::connection connection_;             // container thread only
    bool opened_once_ = false;                  // container thread only
};

// Buffers the messages of one address. receive() and receive(timeout, id) may be called from
// any number of threads.
class qpid_receiver : public proton::messaging_handler,
                      public std::enable_shared_from_this<qpid_receiver> {
  public:
    // At most this many messages are buffered or granted as credit at any time.
    static constexpr int max_outstanding = 50;
    // A reply that waited at the front of the buffer longer than this is dropped.
    static constexpr std::chrono::milliseconds reply_max_age{5000};

    explicit qpid_receiver(std::string address);

    // Opens the link on `connection` (container thread only).
    void open_on(proton::connection& connection);
    // The next message, for service threads: waits in steps of at most a second until one is
    // buffered, the receiver is closed (throws) or *stop becomes non-zero (returns false).
    bool receive(proton::message* out, const std::atomic<int>* stop = nullptr);
    // The reply whose correlation id is `id`, waiting at most `timeout`; throws
    // std::runtime_error("Timeout") or ("receiver closed").
    proton::message receive(std::chrono::milliseconds timeout, const std::string& id);
    // The link's current credit, asked of the container thread.
    int get_credit();
    // Wakes every waiter for good and closes the link and its connection.
    void close();
    // Forgets the work queue for good (the container is going away).
    void detach();
    // Asks the container thread to top the credit up to the outstanding limit.
    void schedule_receive_done();

    const std::string& address() const { return address_; }
    size_t buffered() const;
    size_t expired_count() const;

    void on_receiver_open(proton::receiver& receiver) override;
    void on_message(proton::delivery& delivery, proton::message& message) override;
    void on_connection_open(proton::connection& connection) override;
    void on_error(const proton::error_condition& error) override;

  private:
    struct arrival {
        std::chrono::steady_clock::time_point when;
        proton::message message;
    };
    // Under mutex_. *dropped is set when a front without correlation id was thrown away.
    bool match_reply(const std::string& id, bool* dropped);
    void drop_front();  // under mutex_
    void top_up();      // container thread

    const std::string address_;
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<arrival> buffer_;
    std::vector<std::string> expired_;
    bool closed_ = false;
    bool detached_ = false;
    proton::work_queue* work_queue_ = nullptr;  // guarded by mutex_
    proton::receiver link_;                     // container thread only
};

// Starts the container thread and the sender's connection. 0, or non-zero on failure.
int qv_qpid_init(qv_nats_config* connection_config);
// Closes the receivers (ending the handler threads), stops the container and joins the threads.
void qv_qpid_deinit(qv_nats_config* connection_config);
// Sends rr->request to `service` and waits timeout_ms + extra_timeout_ms for the reply, which
// goes to rr->reply. 0, or non-zero with the reason in errormsg (1024 bytes, may be null).
int qv_qpid_send_receive_mt(qv_nats_config* connection_config, const char* service, int timeout_ms,
                            int extra_timeout_ms, qv_request_reply_t* rr, char* errormsg);
// Starts `number_of_threads` threads serving `service`; they end when *terminate becomes
// non-zero or at qv_qpid_deinit. 0 or non-zero.
int qv_qpid_start_service_handler_threads(qv_nats_config* connection_config, const char* service,
                                          qv_service_handler_t request_handler,
                                          void* request_handler_config,
                                          const std::atomic<int>* terminate, int number_of_threads);
// The process's sender, and the receiver of `address` (opened on first use); null when the
// client is not initialised.
std::shared_ptr<qpid_sender> qv_qpid_get_sender(qv_nats_config* config);
std::shared_ptr<qpid_receiver> qv_qpid_get_receiver(qv_nats_config* config, const char* address);
// "qv-replies-<pid>.<random>", the same for the life of the process.
const std::string& qv_qpid_replies_address();

// Body conversions (throw std::invalid_argument with the reason).
void copy_vector_msg_to_qv_msg(const proton::message& message, qv_message_t* out);
void copy_qv_msg_to_vector_msg(const qv_message_t& in, proton::message* message);
// A message or correlation id as text; empty (and logged) when it has no text form.
std::string qv_qpid_id_text(const proton::message_id& id);
