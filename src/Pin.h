/*
 * Pin: what keeps an object from being deleted while another thread works with it.
 *
 * The manager and its controllers are plain owned pointers that the start-up gate or the end of the
 * process may delete at any instant, while key callbacks, remote handlers, deferred tasks and other
 * controllers hold the same pointers. So whoever reaches an object from another thread takes a Pin
 * on it first: on an object that is gone, or about to go, the Pin is empty; otherwise the object
 * stays until the Pin is released, because its owner's retire() waits for that.
 *
 * A thread must not retire an object on which it holds a Pin itself.
 */
#ifndef CORVANE_PIN_H
#define CORVANE_PIN_H

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>

namespace Corvane {

template <class T>
class Pin {
public:
    /** Pins object, which may be null or a pointer to something long deleted: then the Pin is
     * empty. */
    explicit Pin(T *object) {
        std::lock_guard<std::mutex> lock(book.mutex);
        const auto entry = book.entries.find(object);
        if (entry != book.entries.end() && !entry->second.retired) {
            ++entry->second.pins;
            pinned = object;
        }
    }

    ~Pin() {
        if (pinned == nullptr) {
            return;
        }
        std::lock_guard<std::mutex> lock(book.mutex);
        if (--book.entries.find(pinned)->second.pins == 0) {
            book.released.notify_all();
        }
    }

    Pin(const Pin &) = delete;
    Pin &operator=(const Pin &) = delete;

    explicit operator bool() const { return pinned != nullptr; }
    T *operator->() const { return pinned; }

    /** Makes object known; the first thing its constructor does. */
    static void enter(T *object) {
        std::lock_guard<std::mutex> lock(book.mutex);
        book.entries[object];
    }

    /**
     * Refuses further Pins on the object that the slot holds, and waits until those that are held
     * have been released. Gives the object to the first caller, who alone may delete it; null when
     * the slot is empty, or another has retired its object before.
     */
    static T *retire(const std::atomic<T *> &slot) {
        std::unique_lock<std::mutex> lock(book.mutex);
        T *object = slot.load(); // under the lock: its address may be used again once it is gone
        return retire(object, lock) ? object : nullptr;
    }

    /**
     * Retires object if nobody has, and strikes it off. Its destructor does this before it takes
     * anything apart that a holder of a Pin may still use.
     */
    static void leave(T *object) {
        std::unique_lock<std::mutex> lock(book.mutex);
        retire(object, lock);
        book.entries.erase(object);
    }

private:
    struct Entry {
        int pins = 0;
        bool retired = false;
    };

    /** One book a type, so that an address used again for another type is never mistaken. */
    struct Book {
        std::mutex mutex;
        std::condition_variable released; // some object's last Pin has been released
        std::map<T *, Entry> entries;     // guarded by mutex
    };
    static inline Book book;

    /** True for the first caller; the lock, on the book's mutex, is let go while waiting. */
    static bool retire(T *object, std::unique_lock<std::mutex> &lock) {
        const auto entry = book.entries.find(object);
        if (entry == book.entries.end() || entry->second.retired) {
            return false;
        }
        entry->second.retired = true;
        book.released.wait(lock, [&entry] { return entry->second.pins == 0; });
        return true;
    }

    T *pinned = nullptr;
};

} // namespace Corvane

#endif
