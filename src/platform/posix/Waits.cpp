// The waits of the POSIX backend: on one handle or on the first of several.
//
// A wait looks at its objects in array order and takes the first that is
// signalled (consuming an auto-reset event, taking a mutex); only that one is
// consumed. Failing that, it puts a link to itself in the waiter list of each
// object, looks again (whoever changes an object after the link is in place
// wakes it; a change before is seen by the second look), and sleeps:
//  - on a futex word of its own when no socket takes part: a wake-up is one
//    FUTEX_WAKE by the waker, and the sleep itself is the waiter's only call;
//  - in an epoll set of its own when sockets take part: the sockets (through
//    their events' own descriptors) stay in the set from one wait to the
//    next, and the waker writes to an eventfd that the set watches
//    edge-triggered, so that the waiter never has to read it back;
//  - in poll() when every socket of the wait is lent to the waiter
//    (KvnLendSocketEvent): it alone watches them, and only until it gives
//    them back, so registering them in its epoll set (and taking them out
//    for the next socket) would cost two calls per wait for nothing. The
//    eventfd is polled beside them and read back when a waker wrote to it.
// Wakers only touch a sleeping thread's record, which is never freed, so a
// wake-up that comes a moment late costs a spurious look, nothing more.
//
// Linux only: futexes, eventfd and epoll.
#include "platform/Kernel.h"

#include <korvane/platform/KvnWait.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>

#include <linux/futex.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "platform/Sockets.h"
#include "platform/posix/PosixInternal.h"

namespace kvn_posix {
namespace {

using SteadyClock = std::chrono::steady_clock;

// Epoll registrations are told apart by a serial that is never used twice; 0
// is the thread's own eventfd.
std::atomic<std::uint64_t> g_watchSerial{0};

int* FutexWord(ThreadState& t) { return reinterpret_cast<int*>(&t.wake); }

// Looks at every object in order and takes the first that is signalled.
bool Scan(KernelObject* const* objects, DWORD count, ThreadState& self, DWORD& result) {
    for (DWORD i = 0; i < count; ++i) {
        KernelObject* o = objects[i];
        bool taken = false;
        bool abandoned = false;
        switch (KindOf(o)) {
        case ObjectKind::Event:
            if (o->manualReset) {
                taken = o->signalled.load() != 0;
            } else {
                taken = o->signalled.load() != 0 && o->signalled.exchange(0) != 0;
                if (taken) SyncPollFd(o);
            }
            break;
        case ObjectKind::Thread: taken = o->signalled.load() != 0; break;
        case ObjectKind::Mutex: taken = TryTakeMutex(o, self, abandoned); break;
        case ObjectKind::SocketEvent: taken = SocketEventReady(o, self); break;
        }
        if (taken) {
            result = (abandoned ? WAIT_ABANDONED_0 : WAIT_OBJECT_0) + i;
            return true;
        }
    }
    return false;
}

void AddWaiter(KernelObject* o, WaitLink& link) {
    std::lock_guard<std::mutex> guard(o->lock);
    link.prev = nullptr;
    link.next = o->waiters;
    if (o->waiters) o->waiters->prev = &link;
    o->waiters = &link;
    o->nWaiters.fetch_add(1);
}

void RemoveWaiter(KernelObject* o, WaitLink& link) {
    std::lock_guard<std::mutex> guard(o->lock);
    if (link.prev) link.prev->next = link.next;
    else o->waiters = link.next;
    if (link.next) link.next->prev = link.prev;
    o->nWaiters.fetch_sub(1);
}

bool InWait(KernelObject* o, KernelObject* const* objects, DWORD count) {
    for (DWORD i = 0; i < count; ++i)
        if (objects[i] == o) return true;
    return false;
}

// A socket polled by a wait, for the binding it was polled for.
struct Polled {
    KernelObject* event;
    int fd;
    std::uint32_t generation;
};

// How a wait sleeps.
enum Sleep { kSleepFutex, kSleepEpoll, kSleepPoll };

// Drops the thread's epoll watches of socket events that are not in this
// wait or may no longer be watched by it.
void DropWatches(KernelObject* const* objects, DWORD count, ThreadState& self) {
    for (int w = 0; w < self.nWatches;) {
        Watch& watch = self.watches[w];
        if (InWait(watch.event, objects, count) &&
            SocketEventStillWatchable(watch.event, self, watch.generation)) {
            ++w;
            continue;
        }
        SocketEventUnwatch(watch.event, self, watch.generation);
        Unreference(watch.event);
        watch = self.watches[--self.nWatches];
        self.watches[self.nWatches] = Watch();
    }
}

// Brings the thread's epoll set in line with the socket events of this wait:
// those that may be watched are in it, nothing else is. True when at least
// one socket is watched.
bool WatchSockets(KernelObject* const* objects, DWORD count, ThreadState& self) {
    DropWatches(objects, count, self);
    bool any = false;
    for (DWORD i = 0; i < count; ++i) {
        KernelObject* o = objects[i];
        if (KindOf(o) != ObjectKind::SocketEvent) continue;
        bool watched = false;
        for (int w = 0; w < self.nWatches && !watched; ++w) watched = self.watches[w].event == o;
        if (!watched && self.nWatches < kMaxWatches && PrepareEpoll(self)) {
            Watch watch;
            watch.event = o;
            watch.serial = ++g_watchSerial;
            if (SocketEventWatch(o, self, watch.serial, watch.generation)) {
                Reference(o);
                self.watches[self.nWatches++] = watch;
                watched = true;
            }
        }
        any = any || watched;
    }
    return any;
}

// How the wait sleeps this time. When every socket of the wait is lent to
// the thread, the descriptors to poll go to polled; otherwise the epoll set
// is brought in line with the wait.
Sleep PlanSleep(KernelObject* const* objects, DWORD count, ThreadState& self, Polled* polled,
                int& nPolled) {
    nPolled = 0;
    bool allLent = PrepareEpoll(self);
    for (DWORD i = 0; i < count && allLent; ++i) {
        KernelObject* o = objects[i];
        if (KindOf(o) != ObjectKind::SocketEvent) continue;
        // Without its lock first: the threads that own their sockets (the
        // usual case) pay nothing for this look.
        if (o->lentTo.load() != &self) {
            allLent = false;
            break;
        }
        Polled p;
        p.event = o;
        p.fd = SocketEventLentFd(o, self, p.generation);
        if (p.fd == kNotLent) allLent = false;
        else if (p.fd >= 0) polled[nPolled++] = p;
    }
    if (!allLent) return WatchSockets(objects, count, self) ? kSleepEpoll : kSleepFutex;
    DropWatches(objects, count, self);
    return nPolled > 0 ? kSleepPoll : kSleepFutex;
}

// Takes in what epoll or poll reported for one socket.
void ReportSocket(KernelObject* event, ThreadState& self, std::uint32_t generation,
                  std::uint32_t epollEvents) {
    // Other threads may wait on the same event.
    if (SocketEventReport(event, self, generation, epollEvents)) WakeWaiters(event);
}

// Takes in what the epoll set reported.
void Reported(const epoll_event* events, int n, ThreadState& self) {
    for (int e = 0; e < n; ++e) {
        if (events[e].data.u64 == 0) continue;  // the eventfd: a wake-up
        for (int w = 0; w < self.nWatches; ++w) {
            Watch& watch = self.watches[w];
            if (watch.serial != events[e].data.u64) continue;
            ReportSocket(watch.event, self, watch.generation, events[e].events);
            break;
        }
    }
}

// Sleeps until woken or until leftMs (-1: no limit) has passed; a thread
// notified since it last looked does not sleep at all.
void Park(ThreadState& self, Sleep sleep, const Polled* polled, int nPolled, long long leftMs) {
    self.parkMode.store(sleep == kSleepFutex ? kParkFutex : kParkEventFd);
    int expected = kRunning;
    if (!self.wake.compare_exchange_strong(expected, kParked)) return;
    const int ms = leftMs < 0 ? -1 : (leftMs > INT_MAX ? INT_MAX : static_cast<int>(leftMs));
    if (sleep == kSleepEpoll) {
        epoll_event events[16];
        const int n = epoll_wait(self.epollFd, events, 16, ms);
        self.wake.store(kRunning);
        if (n > 0) Reported(events, n, self);
        return;
    }
    if (sleep == kSleepPoll) {
        pollfd fds[1 + MAXIMUM_WAIT_OBJECTS];
        fds[0].fd = self.eventFd;
        fds[0].events = POLLIN;
        for (int i = 0; i < nPolled; ++i) {
            fds[1 + i].fd = polled[i].fd;
            fds[1 + i].events = POLLIN | POLLRDHUP;
        }
        const int n = poll(fds, static_cast<nfds_t>(1 + nPolled), ms);
        self.wake.store(kRunning);
        if (n <= 0) return;
        if (fds[0].revents != 0) {
            // Emptied, so that the next poll sleeps; the epoll set sees the
            // next write as a new edge all the same.
            std::uint64_t count;
            ssize_t r = read(self.eventFd, &count, sizeof count);
            (void)r;
        }
        for (int i = 0; i < nPolled; ++i) {
            const short r = fds[1 + i].revents;
            if (r == 0) continue;
            std::uint32_t events = 0;
            if (r & POLLIN) events |= EPOLLIN;
            if (r & POLLRDHUP) events |= EPOLLRDHUP;
            if (r & POLLHUP) events |= EPOLLHUP;
            if (r & (POLLERR | POLLNVAL)) events |= EPOLLERR;
            ReportSocket(polled[i].event, self, polled[i].generation, events);
        }
        return;
    }
    timespec ts;
    timespec* limit = nullptr;
    if (leftMs >= 0) {
        ts.tv_sec = static_cast<time_t>(leftMs / 1000);
        ts.tv_nsec = static_cast<long>(leftMs % 1000) * 1000000L;
        limit = &ts;
    }
    // Returns at once when the word is no longer kParked; EINTR and spurious
    // returns lead to a new look like a wake-up.
    syscall(SYS_futex, FutexWord(self), FUTEX_WAIT_PRIVATE, kParked, limit, nullptr, 0);
    self.wake.store(kRunning);
}

// Milliseconds left until the deadline, rounded up so that a wait never ends
// early.
long long LeftMs(SteadyClock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::microseconds>(deadline - SteadyClock::now()).count();
    return left <= 0 ? 0 : (left + 999) / 1000;
}

DWORD WaitAny(DWORD count, const HANDLE* handles, DWORD timeoutMs) {
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || !handles) {
        KvnSetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    KernelObject* objects[MAXIMUM_WAIT_OBJECTS];
    bool sockets = false;
    for (DWORD i = 0; i < count; ++i) {
        objects[i] = OpenObject(handles[i]);
        if (!objects[i]) {
            KvnSetLastError(ERROR_INVALID_HANDLE);
            return WAIT_FAILED;
        }
        sockets = sockets || KindOf(objects[i]) == ObjectKind::SocketEvent;
    }
    ThreadState& self = CurrentThread();
    DWORD result = WAIT_TIMEOUT;
    if (Scan(objects, count, self, result)) return result;
    if (timeoutMs == 0 && !sockets) return WAIT_TIMEOUT;

    const bool infinite = timeoutMs == INFINITE;
    const SteadyClock::time_point deadline =
        SteadyClock::now() + std::chrono::milliseconds(infinite ? 0 : timeoutMs);
    // The wait keeps its objects alive even if their handles are closed meanwhile.
    WaitLink links[MAXIMUM_WAIT_OBJECTS];
    for (DWORD i = 0; i < count; ++i) {
        Reference(objects[i]);
        links[i].thread = &self;
        AddWaiter(objects[i], links[i]);
    }
    bool lookedAtSockets = false;
    Polled polled[MAXIMUM_WAIT_OBJECTS];
    int nPolled = 0;
    for (;;) {
        self.wake.store(kRunning);
        if (Scan(objects, count, self, result)) break;
        const long long left = infinite ? -1 : LeftMs(deadline);
        const Sleep sleep = sockets ? PlanSleep(objects, count, self, polled, nPolled) : kSleepFutex;
        // At the end of the time, the sockets are still looked at once.
        if (left == 0 && (sleep == kSleepFutex || lookedAtSockets)) {
            result = WAIT_TIMEOUT;
            break;
        }
        lookedAtSockets = left == 0;
        Park(self, sleep, polled, nPolled, left);
    }
    for (DWORD i = 0; i < count; ++i) {
        RemoveWaiter(objects[i], links[i]);
        Unreference(objects[i]);
    }
    return result;
}

}  // namespace

void Kick(ThreadState* t) {
    if (t->parkMode.load() == kParkEventFd) {
        const std::uint64_t one = 1;
        // Never full in practice: the counter is 64 bits (and a wait that
        // polls it reads it back).
        ssize_t written = write(t->eventFd, &one, sizeof one);
        (void)written;
    } else {
        syscall(SYS_futex, FutexWord(*t), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }
}

bool PrepareEpoll(ThreadState& self) {
    if (self.epollFd >= 0) return true;
    const int efd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    const int ep = efd < 0 ? -1 : epoll_create1(EPOLL_CLOEXEC);
    epoll_event ev;
    ev.events = EPOLLIN | EPOLLET;
    ev.data.u64 = 0;
    if (ep < 0 || epoll_ctl(ep, EPOLL_CTL_ADD, efd, &ev) != 0) {
        if (ep >= 0) close(ep);
        if (efd >= 0) close(efd);
        return false;
    }
    self.eventFd = efd;
    self.epollFd = ep;
    return true;
}

}  // namespace kvn_posix

using namespace kvn_posix;

DWORD KvnWaitForSingleObject(HANDLE h, DWORD timeoutMs) {
    // A free mutex, or one the thread holds already, is taken here: the look
    // that the wait would make first, without its set-up.
    KernelObject* o = OpenObject(h);
    if (o && KindOf(o) == ObjectKind::Mutex) {
        bool abandoned = false;
        if (TryTakeMutex(o, CurrentThread(), abandoned)) return abandoned ? WAIT_ABANDONED_0 : WAIT_OBJECT_0;
    }
    return WaitAny(1, &h, timeoutMs);
}

DWORD KvnWaitForMultipleObjects(DWORD count, const HANDLE* handles, DWORD timeoutMs) {
    return WaitAny(count, handles, timeoutMs);
}

kvn::DWORD kvn::WaitForSingleObject(kvn::HANDLE h, kvn::DWORD timeoutMs) {
    return KvnWaitForSingleObject(h, timeoutMs);
}

kvn::DWORD kvn::WaitForMultipleObjects(kvn::DWORD count, const kvn::HANDLE* handles,
                                       kvn::Bool waitAll, kvn::DWORD timeoutMs) {
    if (waitAll) {
        KvnSetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    return WaitAny(count, handles, timeoutMs);
}
