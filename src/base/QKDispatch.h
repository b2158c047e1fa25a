#pragma once

#include "QKGlobal.h"

class QObject;

#include <functional>
#include <source_location>

/// Where a block runs: the application's main thread, or Qt's global thread pool.
class MURMORA_DATA_EXPORT QKDispatchQueue
{
public:
    /// The main thread, or the global pool.
    enum class Kind { Main, Global };

    /// Which of the two queues this is.
    Kind kind() const { return m_kind; }

private:
    friend class QKDispatch;
    explicit QKDispatchQueue(Kind kind) : m_kind(kind) {}
    Kind m_kind;
};

/// Posting blocks to the main thread and to background threads.
class MURMORA_DATA_EXPORT QKDispatch
{
public:
    /// The main thread's queue. Blocks run from its event loop, in the order posted.
    /// Needs a QCoreApplication (QKException when none was ever made); blocks posted
    /// before its event loop starts run once it does. Once the application object is
    /// being destroyed, blocks posted here are dropped without running.
    static QKDispatchQueue mainQueue();
    /// Qt's global thread pool; blocks may run concurrently. The application's
    /// destructor waits for them; after it, blocks posted here are dropped.
    static QKDispatchQueue globalQueue();

    /// Runs `block` on `queue`, later; never before this call returns.
    static void async(const QKDispatchQueue &queue, std::function<void()> block);

    /// A hand-over to `context`'s thread for one block: the function returned may be
    /// called once, from any thread, and runs its block on that thread's event loop,
    /// or not at all once `context` is destroyed (the idiom of QTimer::singleShot with
    /// a context). Make it while `context` surely lives, usually on its own thread.
    static std::function<void(std::function<void()>)> deliverTo(const QObject *context);

    /// True on the application's main thread.
    static bool isMainThread();
};

/// Aborts with the caller's location unless called on the application's main thread
/// (also when there is no application). Completions put it first, before they touch a
/// screen or its model. Active in every build: it costs one thread-local read per
/// completion, and the alternative to stopping is a data race on live widgets.
MURMORA_DATA_EXPORT void QKAssertMainThread(std::source_location where = std::source_location::current());
