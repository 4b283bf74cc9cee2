// A list with a single iterator: whoever walks it first takes the list's one iterator, waiting for
// it by the list's rule (a try every step, at least 25 ms apart; only a non-zero try limit ends
// the wait without the iterator, a deadline alone waits until the iterator is free).
//
// Elements are shared: a walk goes over the elements as they were when it started, and an element
// that another thread removes meanwhile stays alive for the walker. Changing an element's fields
// is the owner's business (the lists of the daemon guard theirs with their own mutex).
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

template <class T>
class qvhlp_list {
  public:
    using element = std::shared_ptr<T>;

    // One walk over the list; holds the list's iterator until stop() or destruction. Converts to
    // false when the iterator could not be had.
    class iteration {
      public:
        iteration() = default;
        iteration(const iteration&) = delete;
        iteration& operator=(const iteration&) = delete;
        iteration(iteration&& other) noexcept { *this = std::move(other); }
        iteration& operator=(iteration&& other) noexcept {
            if (this != &other) {
                stop();
                list_ = std::exchange(other.list_, nullptr);
                items_ = std::move(other.items_);
                pos_ = std::exchange(other.pos_, 0);
            }
            return *this;
        }
        ~iteration() { stop(); }

        explicit operator bool() const { return list_ != nullptr; }
        bool hasnext() const { return list_ != nullptr && pos_ < items_.size(); }
        element next() { return hasnext() ? items_[pos_++] : nullptr; }
        void stop() {
            if (list_ != nullptr) {
                list_->release_iterator();
                list_ = nullptr;
            }
            items_.clear();
            pos_ = 0;
        }

      private:
        friend class qvhlp_list;
        qvhlp_list* list_ = nullptr;
        std::vector<element> items_;
        size_t pos_ = 0;
    };

    qvhlp_list() = default;
    qvhlp_list(const qvhlp_list&) = delete;
    qvhlp_list& operator=(const qvhlp_list&) = delete;

    // 0, or -1 for a null element.
    int append(element item) {
        if (!item) {
            return -1;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        items_.push_back(std::move(item));
        return 0;
    }

    // 0 when the element was in the list and is gone now, -1 otherwise.
    int remove(const T* item) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = std::find_if(items_.begin(), items_.end(),
                               [item](const element& e) { return e.get() == item; });
        if (it == items_.end()) {
            return -1;
        }
        items_.erase(it);
        return 0;
    }

    size_t size() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return items_.size();
    }

    // Takes the list's iterator. `deadline_ms` is where a caller expects the wait to end; the
    // wait nevertheless goes on until the iterator is free unless `max_tries` (non-zero) runs out
    // first. Tries are `step_ms` apart, at least 25 ms.
    iteration iterator_wait([[maybe_unused]] int deadline_ms, int max_tries, int step_ms) {
        const auto step = std::chrono::milliseconds(std::max(step_ms, 25));
        for (int tries = 1;; ++tries) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                if (!iterating_) {
                    iterating_ = true;
                    iteration walk;
                    walk.list_ = this;
                    walk.items_.assign(items_.begin(), items_.end());
                    return walk;
                }
            }
            if (max_tries > 0 && tries >= max_tries) {
                return iteration();
            }
            std::this_thread::sleep_for(step);
        }
    }

  private:
    void release_iterator() {
        std::lock_guard<std::mutex> lock(mutex_);
        iterating_ = false;
    }

    mutable std::mutex mutex_;
    std::list<element> items_;
    bool iterating_ = false;
};
