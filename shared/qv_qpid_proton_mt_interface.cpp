#include "qv_qpid_proton_mt_interface.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <future>
#include <map>
#include <random>
#include <stdexcept>
#include <thread>

#include <proton/binary.hpp>
#include <proton/codec/vector.hpp>
#include <proton/connection.hpp>
#include <proton/connection_options.hpp>
#include <proton/container.hpp>
#include <proton/delivery.hpp>
#include <proton/error.hpp>
#include <proton/error_condition.hpp>
#include <proton/message_id.hpp>
#include <proton/receiver_options.hpp>
#include <proton/reconnect_options.hpp>
#include <proton/sender_options.hpp>
#include <proton/source.hpp>
#include <proton/ssl.hpp>
#include <proton/timestamp.hpp>
#include <proton/transport.hpp>
#include <proton/uuid.hpp>
#include <proton/value.hpp>
#include <proton/work_queue.hpp>

#include "log.h"
#include "qv_uuid.h"
#include "qvhlp_replies.h"

namespace {

using steady = std::chrono::steady_clock;

// How long deinit waits for the container thread and for each handler thread.
constexpr auto kJoinWait = std::chrono::seconds(10);

// A receiver that was closed while a thread waited on it.
struct receiver_closed : std::runtime_error {
    receiver_closed() : std::runtime_error("receiver closed") {}
};

// A thread of our own that can be joined with a bound: `done` is set as its last act.
struct tracked_thread {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done = std::make_shared<std::atomic<bool>>(false);
};

// Joins `t` when it ends within `wait`; otherwise leaves it running on its own (it holds shared
// references to everything it uses). True when joined.
bool s_join_bounded(tracked_thread& t, std::chrono::milliseconds wait) {
    if (!t.thread.joinable()) {
        return true;
    }
    const auto deadline = steady::now() + wait;
    while (!t.done->load() && steady::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (t.done->load()) {
        t.thread.join();
        return true;
    }
    t.thread.detach();
    return false;
}

// Everything the client keeps for one connection record.
struct qpid_state {
    std::string url;
    proton::connection_options options;

    std::shared_ptr<qpid_sender> sender;
    // Receivers by address; `connection_ready` once the connection opened, after which new
    // receivers are opened at once (before that, when it opens).
    std::mutex receivers_mutex;
    std::map<std::string, std::shared_ptr<qpid_receiver>> receivers;
    bool connection_ready = false;

    std::mutex threads_mutex;
    std::vector<tracked_thread> handler_threads;

    // Made by the container thread; it lives until after that thread was joined.
    std::mutex container_mutex;
    std::condition_variable container_cv;
    std::unique_ptr<proton::container> container;
    bool container_gone = false;
    std::atomic<bool> stopping{false};
    tracked_thread container_thread;
};

qpid_state* s_state(qv_nats_config* config) {
    return config != nullptr ? static_cast<qpid_state*>(config->extra_params.get()) : nullptr;
}

void s_copy_error(char* errormsg, const char* text) {
    if (errormsg != nullptr) {
        snprintf(errormsg, 1024, "%s", text);
    }
}

proton::uuid s_random_uuid() {
    uuid_t raw;
    qv_uuid_generate_random(raw);
    proton::uuid id;
    std::copy(raw, raw + 16, id.begin());
    return id;
}

// Opens the receivers that wait for the connection (container thread).
void s_on_connection_open(const std::weak_ptr<qpid_state>& weak, proton::connection& connection,
                          bool reconnected) {
    const auto state = weak.lock();
    if (!state) {
        return;
    }
    std::lock_guard<std::mutex> lock(state->receivers_mutex);
    if (reconnected) {
        // The library re-attaches the links by itself; the receivers only hear about it.
        for (auto& [address, receiver] : state->receivers) {
            receiver->on_connection_open(connection);
        }
        return;
    }
    if (!state->connection_ready) {
        state->connection_ready = true;
        for (auto& [address, receiver] : state->receivers) {
            receiver->open_on(connection);
        }
    }
}

void s_container_thread(const std::shared_ptr<qpid_state>& state) {
    log_info("Starting container thread");
    try {
        {
            std::lock_guard<std::mutex> lock(state->container_mutex);
            state->container = std::make_unique<proton::container>();
            // Runs until deinit stops it, also while the connection is down between attempts.
            state->container->auto_stop(false);
        }
        state->container_cv.notify_all();
        for (;;) {
            try {
                log_info("Running container with id: %s", state->container->id().c_str());
                state->container->run();
                log_info("Container run() exited normally");
                break;
            } catch (const std::exception& e) {
                log_error("Container exception: %s", e.what());
            }
            if (state->stopping.load()) {
                break;
            }
            log_info("Restarting container...");
        }
    } catch (const std::exception& e) {
        log_error("Container exception: %s", e.what());
    }
    {
        std::lock_guard<std::mutex> lock(state->container_mutex);
        state->container_gone = true;
    }
    state->container_cv.notify_all();
    log_info("Container thread ending");
    state->container_thread.done->store(true);
}

// Stops the container and joins its thread (bounded).
void s_stop_container(qpid_state& state) {
    state.stopping = true;
    // A connection left open would be reconnected by the library, also while the container stops,
    // and one caught between two attempts then outlives the container. Closed here first, on the
    // container thread, it is given up for good.
    if (state.sender) {
        auto closed = std::make_shared<std::promise<void>>();
        std::future<void> done = closed->get_future();
        {
            std::lock_guard<std::mutex> lock(state.container_mutex);
            if (state.container && !state.container_gone) {
                state.container->schedule(proton::duration(0), [sender = state.sender, closed] {
                    sender->close_connection();
                    closed->set_value();
                });
            }
        }
        done.wait_for(std::chrono::seconds(2));
    }
    {
        std::lock_guard<std::mutex> lock(state.container_mutex);
        if (state.container) {
            state.container->stop();
        }
    }
    log_info("Container stopped");
    if (s_join_bounded(state.container_thread, kJoinWait)) {
        log_info("Container thread joined");
    } else {
        log_error("Deinitialization error: %s", "container thread did not end");
    }
}

proton::connection_options s_connection_options(const qv_nats_config& config) {
    proton::connection_options options;
    options.user(config.broker_user).password(config.broker_password).sasl_enabled(true);
    options.sasl_allowed_mechs("PLAIN");
    if (!config.cert_path.empty()) {
        // The broker must prove both that its certificate comes from our CA and that it was
        // issued for the host we asked for: otherwise any holder of a certificate from the same
        // CA could pose as the backend.
        options.ssl_client_options(
            proton::ssl_client_options(config.cert_path, proton::ssl::VERIFY_PEER_NAME));
    } else {
        // No CA configured: a plain TCP connection to host:port. The user name and password
        // then travel unencrypted, which the library refuses unless told that this is wanted.
        options.sasl_allow_insecure_mechs(true);
    }
    options.reconnect(proton::reconnect_options().max_delay(proton::duration(60 * 1000)));
    return options;
}

// The bytes of a body element that is a string or binary value; false for any other type.
bool s_bytes_of(const proton::value& v, std::string* out) {
    if (v.type() == proton::STRING) {
        *out = proton::get<std::string>(v);
        return true;
    }
    if (v.type() == proton::BINARY) {
        const proton::binary b = proton::get<proton::binary>(v);
        out->assign(b.begin(), b.end());
        return true;
    }
    return false;
}

void s_handler_loop(std::shared_ptr<qpid_sender> sender, std::shared_ptr<qpid_receiver> receiver,
                    std::string service, qv_service_handler_t request_handler,
                    void* request_handler_config, const std::atomic<int>* terminate) {
    log_info("Starting handler thread for service '%s'", service.c_str());
    if (log_get_level() >= QVLOG_DEBUG) {
        try {
            log_debug("Receiver '%s' credit: %d", receiver->address().c_str(),
                      receiver->get_credit());
        } catch (const std::exception& e) {
            log_debug("Receiver '%s' credit: %s", receiver->address().c_str(), e.what());
        }
    }
    const auto stop = [terminate] { return terminate != nullptr && terminate->load() != 0; };
    while (!stop()) {
        try {
            log_trace("Waiting for request on '%s'", receiver->address().c_str());
            proton::message request;
            if (!receiver->receive(&request, terminate)) {
                break;
            }
            const std::string id = qv_qpid_id_text(request.id());
            const std::string reply_to = request.reply_to();
            log_debug(
                "Processing request for service '%s' with msg.id: '%s' and msg.reply_to: "
                "'%s'",
                service.c_str(), id.c_str(), reply_to.c_str());
            qv_message_t request_message;
            copy_vector_msg_to_qv_msg(request, &request_message);
            qv_message_t reply_message;
            qv_const_request_reply_t rr{&request_message, &reply_message};
            request_handler(request_handler_config, &rr);
            if (reply_message.json_txt.empty()) {
                log_warn("No reply generated by handler, creating a generic error reply");
                qv_reply_set_ERROR(&reply_message, SERVICE_ERROR, "Failed to handle request");
            }
            if (reply_to.empty()) {
                log_debug("No reply needed for this service");
                continue;
            }
            proton::message reply;
            reply.id(s_random_uuid());
            reply.to(reply_to);
            reply.correlation_id(request.id());
            reply.ttl(proton::duration(5000));
            reply.creation_time(proton::timestamp::now());
            copy_qv_msg_to_vector_msg(reply_message, &reply);
            if (!sender->send(reply)) {
                log_error("Handler exception: %s", "no connection to send the reply on");
                continue;
            }
            log_debug(
                "Reply enqueued from '%s'. msg.to: '%s'. msg.id: '%s'. msg.correlation_id: "
                "'%s'",
                service.c_str(), reply.to().c_str(), qv_qpid_id_text(reply.id()).c_str(),
                id.c_str());
        } catch (const receiver_closed&) {
            if (stop()) {
                log_info("Receiver closed");
            } else {
                log_warn("Receiver closed unexpectedly");
            }
            break;
        } catch (const std::invalid_argument& e) {
            log_error("Conversion error: %s", e.what());
        } catch (const proton::conversion_error& e) {
            log_error("Conversion error: %s", e.what());
        } catch (const std::exception& e) {
            log_error("Handler exception: %s", e.what());
        } catch (...) {
            log_error("Handler exception: %s", "unknown");
        }
    }
    log_info("Handler thread for service '%s' exiting", service.c_str());
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Body and id conversions

void copy_vector_msg_to_qv_msg(const proton::message& message, qv_message_t* out) {
    // A body that is no sequence at all fails here with the library's conversion error.
    const auto elements = proton::get<std::vector<proton::value>>(message.body());
    if (elements.empty()) {
        throw std::invalid_argument("copy_vector_msg_to_qv_msg(): Empty message");
    }
    std::string json;
    if (elements[0].type() != proton::STRING) {
        throw std::invalid_argument("Invalid data type in message");
    }
    json = proton::get<std::string>(elements[0]);
    if (json.empty()) {
        throw std::invalid_argument("copy_vector_msg_to_qv_msg(): Empty json in message");
    }
    std::string data;
    if (elements.size() > 1 && elements[1].type() != proton::NULL_TYPE) {
        if (!s_bytes_of(elements[1], &data)) {
            throw std::invalid_argument("Invalid data type in message (element 1)");
        }
    }
    out->json_txt = std::move(json);
    out->data.assign(data.begin(), data.end());
}

void copy_qv_msg_to_vector_msg(const qv_message_t& in, proton::message* message) {
    if (in.json_txt.empty()) {
        throw std::invalid_argument("copy_qv_msg_to_vector_msg(): Empty message");
    }
    std::vector<std::string> elements{in.json_txt};
    if (!in.data.empty()) {
        elements.emplace_back(in.data.begin(), in.data.end());
    }
    message->body(elements);
}

std::string qv_qpid_id_text(const proton::message_id& id) {
    try {
        switch (id.type()) {
            case proton::STRING:
                return proton::get<std::string>(id);
            case proton::UUID:
                return proton::get<proton::uuid>(id).str();
            case proton::ULONG:
                return std::to_string(proton::get<uint64_t>(id));
            default:
                log_error("Failed to get message id. type=%d", static_cast<int>(id.type()));
                return "";
        }
    } catch (const std::exception&) {
        log_error("Exception getting message id");
        return "";
    }
}

const std::string& qv_qpid_replies_address() {
    static const std::string address = [] {
        std::random_device device;
        return "qv-replies-" + std::to_string(getpid()) + "." + std::to_string(device());
    }();
    return address;
}

// ---------------------------------------------------------------------------------------------
// Sender

qpid_sender::qpid_sender(connection_open_fn on_open) : on_open_(std::move(on_open)) {}

bool qpid_sender::send(const proton::message& message) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (work_queue_ == nullptr) {
        return false;
    }
    return work_queue_->add([this, message] {
        try {
            if (sender_ && sender_.active()) {
                sender_.send(message);
            } else {
                log_warn("unexpected error: %s", "sender link is not open, message dropped");
            }
        } catch (const std::exception& e) {
            log_error("unexpected error: %s", e.what());
        }
    });
}

void qpid_sender::close() {
    log_info("Closing sender");
    closing_ = true;
    open_ = false;
    std::lock_guard<std::mutex> lock(mutex_);
    if (work_queue_ != nullptr) {
        work_queue_->add([this] {
            try {
                if (sender_ && sender_.active()) {
                    sender_.close();
                }
                if (connection_ && connection_.active()) {
                    connection_.close();
                }
            } catch (const std::exception& e) {
                log_error("unexpected error: %s", e.what());
            }
        });
    }
}

proton::work_queue* qpid_sender::work_queue() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return work_queue_;
}

void qpid_sender::detach() {
    std::lock_guard<std::mutex> lock(mutex_);
    work_queue_ = nullptr;
    detached_ = true;
}

void qpid_sender::on_connection_open(proton::connection& connection) {
    try {
        // Our own flag rather than the library's: a first connection that only succeeded on a
        // later attempt already counts as reconnected there, and would never get its links.
        const bool reconnected = opened_once_;
        opened_once_ = true;
        if (reconnected) {
            log_info("Sender reconnected");
        } else {
            connection_ = connection;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                if (!detached_) {
                    work_queue_ = &connection.work_queue();
                }
            }
            connection.open_sender("", proton::sender_options().handler(*this));
        }
        if (on_open_) {
            on_open_(connection, reconnected);
        }
    } catch (const std::exception& e) {
        log_error("unexpected error: %s", e.what());
    }
}

void qpid_sender::on_sender_open(proton::sender& sender) {
    log_info("Sender opened");
    sender_ = sender;
    open_ = true;
}

void qpid_sender::on_sendable(proton::sender& sender) {
    log_trace("Sender has credit %d", sender.credit());
}

void qpid_sender::on_sender_close(proton::sender&) {
    open_ = false;
}

void qpid_sender::on_transport_error(proton::transport& transport) {
    open_ = false;
    // A connection that never opened is only seen here: keep it, so that it can be closed.
    if (!connection_) {
        connection_ = transport.connection();
    }
    on_error(transport.error());
}

void qpid_sender::close_connection() {
    try {
        if (connection_ && connection_.active()) {
            connection_.close();
        }
    } catch (const std::exception& e) {
        log_debug("unexpected error: %s", e.what());
    }
}

void qpid_sender::on_error(const proton::error_condition& error) {
    // The connection we close ourselves is cut short when the container stops: no fault.
    if (closing_) {
        log_debug("unexpected error: %s", error.what().c_str());
    } else {
        log_error("unexpected error: %s", error.what().c_str());
    }
}

// ---------------------------------------------------------------------------------------------
// Receiver

qpid_receiver::qpid_receiver(std::string address) : address_(std::move(address)) {}

void qpid_receiver::open_on(proton::connection& connection) {
    log_info("Opening receiver on address '%s'", address_.c_str());
    // Credit is granted by hand (top_up), never by the library's window.
    connection.open_receiver(address_, proton::receiver_options().handler(*this).credit_window(0));
}

void qpid_receiver::on_receiver_open(proton::receiver& receiver) {
    log_info("Receiver opened for address '%s'", address_.c_str());
    link_ = receiver;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!detached_) {
            work_queue_ = &receiver.work_queue();
        }
    }
    top_up();
}

void qpid_receiver::on_connection_open(proton::connection&) {
    log_info("Receiver on address '%s' reconnected", address_.c_str());
}

void qpid_receiver::on_error(const proton::error_condition& error) {
    log_error("unexpected error: %s", error.what().c_str());
}

void qpid_receiver::on_message(proton::delivery& delivery, proton::message& message) {
    try {
        log_trace("Received message on address '%s' (credit %d)", address_.c_str(),
                  delivery.receiver().credit());
        if (address_.find("qv-replies-") != std::string::npos) {
            log_trace("Message is a reply with correlation_id: '%s'",
                      qv_qpid_id_text(message.correlation_id()).c_str());
        } else {
            log_trace("Message is a request with id: '%s'", qv_qpid_id_text(message.id()).c_str());
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            // A copy: the library decodes the next transfer into the same object.
            buffer_.push_back(arrival{steady::now(), message});
        }
        cv_.notify_all();
    } catch (const std::exception& e) {
        log_error("unexpected error: %s", e.what());
    }
}

void qpid_receiver::top_up() {
    try {
        if (!link_ || !link_.active()) {
            return;
        }
        size_t buffered = 0;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            buffered = buffer_.size();
        }
        const int credit = link_.credit();
        const long add = max_outstanding - static_cast<long>(buffered) - credit;
        if (add > 0) {
            log_trace("Adding %zu credit (buffer: %zu, current credit: %d)",
                      static_cast<size_t>(add), buffered, credit);
            link_.add_credit(static_cast<uint32_t>(add));
        }
    } catch (const std::exception& e) {
        log_error("unexpected error: %s", e.what());
    }
}

void qpid_receiver::schedule_receive_done() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (work_queue_ != nullptr) {
        auto self = shared_from_this();
        work_queue_->add([self] { self->top_up(); });
    }
}

void qpid_receiver::drop_front() {
    buffer_.pop_front();
    if (work_queue_ != nullptr) {
        auto self = shared_from_this();
        work_queue_->add([self] { self->top_up(); });
    }
}

bool qpid_receiver::match_reply(const std::string& id, bool* dropped) {
    while (!buffer_.empty()) {
        const arrival& front = buffer_.front();
        const proton::message_id cid = front.message.correlation_id();
        if (cid.empty()) {
            log_error("Removing reply without correlation_id");
            drop_front();
            if (dropped != nullptr) {
                *dropped = true;
            }
            return false;
        }
        const std::string front_id = qv_qpid_id_text(cid);
        const auto expired = std::find(expired_.begin(), expired_.end(), front_id);
        if (expired != expired_.end()) {
            log_debug("Removing expired reply with correlation_id '%s'", front_id.c_str());
            expired_.erase(expired);
            drop_front();
            continue;
        }
        // Kept: the age test comes before the id comparison, so a reply that waited at the front
        // longer than reply_max_age is dropped even when it belongs to the asking request. A
        // front that old means the buffer is stuck behind replies nobody takes; dropping it
        // unconditionally keeps the rule simple and bounds how long anything blocks the queue.
        if (steady::now() - front.when > reply_max_age) {
            // Arrival in milliseconds since the epoch, so that it can be matched with the log.
            const auto arrived = std::chrono::system_clock::now() - (steady::now() - front.when);
            const long stamp = static_cast<long>(
                std::chrono::duration_cast<std::chrono::milliseconds>(arrived.time_since_epoch())
                    .count());
            log_debug("Removing expired reply with correlation_id '%s' and timestamp '%ld'",
                      front_id.c_str(), stamp);
            const auto listed = std::find(expired_.begin(), expired_.end(), front_id);
            if (listed != expired_.end()) {
                expired_.erase(listed);
            }
            drop_front();
            continue;
        }
        if (front_id == id) {
            log_trace("Matched reply with correlation_id '%s'", id.c_str());
            return true;
        }
        return false;
    }
    return false;
}

proton::message qpid_receiver::receive(std::chrono::milliseconds timeout, const std::string& id) {
    std::unique_lock<std::mutex> lock(mutex_);
    bool dropped = false;
    if (match_reply(id, &dropped)) {
        log_trace("Reply already in buffer for correlation_id '%s'", id.c_str());
    } else {
        log_trace("Waiting for reply on '%s' for %dms", address_.c_str(),
                  static_cast<int>(timeout.count()));
        const auto deadline = steady::now() + timeout;
        for (;;) {
            if (closed_) {
                throw receiver_closed();
            }
            // A front without correlation id was dropped without a verdict on the one behind it:
            // look again at once instead of waiting for the next arrival.
            if (dropped) {
                dropped = false;
                if (match_reply(id, &dropped)) {
                    break;
                }
                continue;
            }
            if (cv_.wait_until(lock, deadline) == std::cv_status::timeout) {
                if (!closed_ && match_reply(id, &dropped)) {
                    break;
                }
                if (closed_) {
                    throw receiver_closed();
                }
                expired_.push_back(id);
                log_debug("Added id '%s' to expired list (size=%ld)", id.c_str(),
                          static_cast<long>(expired_.size()));
                throw std::runtime_error("Timeout");
            }
            if (!closed_ && match_reply(id, &dropped)) {
                break;
            }
        }
    }
    proton::message message = std::move(buffer_.front().message);
    drop_front();
    lock.unlock();
    // The new front may belong to another waiter.
    cv_.notify_all();
    return message;
}

bool qpid_receiver::receive(proton::message* out, const std::atomic<int>* stop) {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!closed_ && buffer_.empty()) {
        if (stop != nullptr && stop->load() != 0) {
            return false;
        }
        cv_.wait_for(lock, std::chrono::seconds(1));
    }
    if (closed_) {
        throw receiver_closed();
    }
    *out = std::move(buffer_.front().message);
    drop_front();
    lock.unlock();
    cv_.notify_all();
    return true;
}

int qpid_receiver::get_credit() {
    std::future<int> answer;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (closed_) {
            throw std::runtime_error("Receiver closed");
        }
        if (work_queue_ == nullptr) {
            throw std::runtime_error("Work queue uninitialized");
        }
        auto promise = std::make_shared<std::promise<int>>();
        answer = promise->get_future();
        auto self = shared_from_this();
        if (!work_queue_->add([self, promise] {
                if (!self->link_ || !self->link_.active()) {
                    promise->set_value(-1);
                } else {
                    promise->set_value(self->link_.credit());
                }
            })) {
            throw std::runtime_error("Work queue uninitialized");
        }
    }
    if (answer.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
        throw std::runtime_error("Work queue uninitialized");
    }
    const int credit = answer.get();
    if (credit < 0) {
        throw std::runtime_error("Receiver uninitialized");
    }
    return credit;
}

void qpid_receiver::close() {
    log_info("Closing receiver for address '%s'", address_.c_str());
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    cv_.notify_all();
    if (work_queue_ != nullptr) {
        auto self = shared_from_this();
        work_queue_->add([self] {
            try {
                if (!self->link_) {
                    return;
                }
                if (self->link_.active()) {
                    self->link_.close();
                    log_debug("Receiver close requested");
                }
                proton::connection c = self->link_.connection();
                if (c.active()) {
                    c.close();
                    log_debug("Connection close requested");
                }
            } catch (const std::exception& e) {
                log_error("unexpected error: %s", e.what());
            }
        });
    }
}

void qpid_receiver::detach() {
    std::lock_guard<std::mutex> lock(mutex_);
    work_queue_ = nullptr;
    detached_ = true;
}

size_t qpid_receiver::buffered() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return buffer_.size();
}

size_t qpid_receiver::expired_count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return expired_.size();
}

// ---------------------------------------------------------------------------------------------
// Interface

int qv_qpid_init(qv_nats_config* connection_config) {
    log_info("Initializing qpid-proton");
    if (connection_config == nullptr) {
        log_error("Initialization failed: %s", "no connection configuration");
        return -1;
    }
    if (s_state(connection_config) != nullptr) {
        return 0;
    }
    std::shared_ptr<qpid_state> started;
    try {
        auto state = std::make_shared<qpid_state>();
        state->url = connection_config->broker_host + ":" + connection_config->broker_port;
        std::weak_ptr<qpid_state> weak = state;
        state->sender =
            std::make_shared<qpid_sender>([weak](proton::connection& c, bool reconnected) {
                s_on_connection_open(weak, c, reconnected);
            });
        state->options = s_connection_options(*connection_config);

        state->container_thread.thread = std::thread(s_container_thread, state);
        started = state;
        log_debug("Waiting for container to be created...");
        {
            std::unique_lock<std::mutex> lock(state->container_mutex);
            state->container_cv.wait(
                lock, [&] { return state->container != nullptr || state->container_gone; });
            if (state->container == nullptr) {
                throw std::runtime_error("container could not be created");
            }
        }
        log_debug("Container created, creating sender...");
        log_info("Creating qpid-proton sender");
        proton::connection_options options = state->options;
        options.handler(*state->sender);
        state->container->connect(state->url, options);
        connection_config->extra_params = state;
        return 0;
    } catch (const std::exception& e) {
        log_error("Initialization failed: %s", e.what());
        if (started) {
            // Whatever was started goes again.
            s_stop_container(*started);
        }
        return -1;
    }
}

void qv_qpid_deinit(qv_nats_config* connection_config) {
    const auto state = connection_config != nullptr
                           ? std::static_pointer_cast<qpid_state>(connection_config->extra_params)
                           : nullptr;
    if (!state) {
        return;
    }
    try {
        state->stopping = true;
        // Closed receivers wake every thread waiting on them; the handler threads then end.
        std::vector<std::shared_ptr<qpid_receiver>> receivers;
        {
            std::lock_guard<std::mutex> lock(state->receivers_mutex);
            for (auto& [address, receiver] : state->receivers) {
                receivers.push_back(receiver);
            }
        }
        // The sender first: its connection is the one every receiver's link is on.
        state->sender->close();
        for (auto& receiver : receivers) {
            receiver->close();
            receiver->detach();
        }
        state->sender->detach();
        s_stop_container(*state);
        std::vector<tracked_thread> threads;
        {
            std::lock_guard<std::mutex> lock(state->threads_mutex);
            threads.swap(state->handler_threads);
        }
        for (auto& t : threads) {
            if (!s_join_bounded(t, kJoinWait)) {
                log_error("Deinitialization error: %s", "a handler thread did not end");
            }
        }
        // A container whose thread did not end is left alone: destroying it under a running
        // event loop would be worse than the leak.
        if (state->container_thread.done->load()) {
            std::lock_guard<std::mutex> lock(state->container_mutex);
            state->container.reset();
        }
    } catch (const std::exception& e) {
        log_error("Deinitialization error: %s", e.what());
    }
    connection_config->extra_params.reset();
}

std::shared_ptr<qpid_sender> qv_qpid_get_sender(qv_nats_config* config) {
    qpid_state* state = s_state(config);
    return state != nullptr ? state->sender : nullptr;
}

std::shared_ptr<qpid_receiver> qv_qpid_get_receiver(qv_nats_config* config, const char* address) {
    qpid_state* state = s_state(config);
    if (state == nullptr || address == nullptr) {
        return nullptr;
    }
    log_trace("Getting qpid-proton receiver for service '%s'", address);
    std::lock_guard<std::mutex> lock(state->receivers_mutex);
    auto found = state->receivers.find(address);
    if (found != state->receivers.end()) {
        return found->second;
    }
    auto receiver = std::make_shared<qpid_receiver>(address);
    state->receivers.emplace(address, receiver);
    if (state->connection_ready) {
        proton::work_queue* queue = state->sender->work_queue();
        if (queue != nullptr) {
            queue->add([receiver, sender = state->sender] {
                try {
                    proton::connection c = sender->get_connection();
                    receiver->open_on(c);
                } catch (const std::exception& e) {
                    log_error("unexpected error: %s", e.what());
                }
            });
        }
    }
    return receiver;
}

int qv_qpid_send_receive_mt(qv_nats_config* connection_config, const char* service, int timeout_ms,
                            int extra_timeout_ms, qv_request_reply_t* rr, char* errormsg) {
    const char* name = service != nullptr ? service : "";
    try {
        if (rr == nullptr || service == nullptr) {
            throw std::invalid_argument("missing service or request");
        }
        auto sender = qv_qpid_get_sender(connection_config);
        if (!sender) {
            throw std::runtime_error("AMQP client not initialized");
        }
        const auto open_deadline = steady::now() + std::chrono::milliseconds(5000);
        while (!sender->is_open() && steady::now() < open_deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        if (!sender->is_open()) {
            throw std::runtime_error("Sender is not open");
        }
        auto receiver = qv_qpid_get_receiver(connection_config, qv_qpid_replies_address().c_str());
        if (!receiver) {
            throw std::runtime_error("AMQP client not initialized");
        }
        // Asking for the credit is a round trip through the container thread: only when traced.
        if (log_get_level() >= QVLOG_TRACE) {
            try {
                log_trace("Receiver '%s' credit: %d", receiver->address().c_str(),
                          receiver->get_credit());
            } catch (const std::exception& e) {
                log_trace("Receiver '%s' credit: %s", receiver->address().c_str(), e.what());
            }
        }
        proton::message request;
        const proton::uuid id = s_random_uuid();
        request.id(id);
        request.to(service);
        request.reply_to(receiver->address());
        request.ttl(proton::duration(std::max(timeout_ms, 0)));
        copy_qv_msg_to_vector_msg(rr->request, &request);
        if (!sender->send(request)) {
            throw std::runtime_error("Sender is not open");
        }
        log_debug("Request enqueued to '%s'. msg.id: '%s'. msg.reply_to: '%s'", service,
                  id.str().c_str(), receiver->address().c_str());
        proton::message reply = receiver->receive(
            std::chrono::milliseconds(std::max(timeout_ms, 0) + std::max(extra_timeout_ms, 0)),
            id.str());
        log_debug("Processing reply with correlation_id '%s'", id.str().c_str());
        copy_vector_msg_to_qv_msg(reply, &rr->reply);
        return 0;
    } catch (const std::runtime_error& e) {
        char text[1024];
        snprintf(text, sizeof(text), "Runtime error on request to '%s': %s", name, e.what());
        log_error("%s", text);
        s_copy_error(errormsg, text);
    } catch (const std::exception& e) {
        char text[1024];
        snprintf(text, sizeof(text), "Exception on request to '%s': %s", name, e.what());
        log_error("%s", text);
        s_copy_error(errormsg, text);
    }
    return -1;
}

int qv_qpid_start_service_handler_threads(qv_nats_config* connection_config, const char* service,
                                          qv_service_handler_t request_handler,
                                          void* request_handler_config,
                                          const std::atomic<int>* terminate,
                                          int number_of_threads) {
    try {
        qpid_state* state = s_state(connection_config);
        if (state == nullptr || service == nullptr || request_handler == nullptr) {
            throw std::invalid_argument("client not initialized or no service");
        }
        auto sender = qv_qpid_get_sender(connection_config);
        auto receiver = qv_qpid_get_receiver(connection_config, service);
        std::lock_guard<std::mutex> lock(state->threads_mutex);
        for (int i = 0; i < number_of_threads; ++i) {
            tracked_thread t;
            t.thread = std::thread([sender, receiver, name = std::string(service), request_handler,
                                    request_handler_config, terminate, done = t.done] {
                try {
                    s_handler_loop(sender, receiver, name, request_handler, request_handler_config,
                                   terminate);
                } catch (...) {
                    // s_handler_loop catches everything itself; nothing may end the process.
                }
                done->store(true);
            });
            state->handler_threads.push_back(std::move(t));
        }
        log_info("Created %d handler threads for service '%s'", number_of_threads, service);
        return 0;
    } catch (const std::runtime_error& e) {
        log_error("Runtime error: %s", e.what());
    } catch (const std::exception& e) {
        log_error("Failed to start handler threads: %s", e.what());
    }
    return -1;
}
