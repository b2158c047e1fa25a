#pragma once

#include "QKGlobal.h"

#include <functional>

/// Where a block runs: the application's main thread, or Qt's global thread pool.
class MURMORA_DATA_EXPORT QKDispatchQueue
{
public:
    enum class Kind { Main, Global };

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
    /// Needs a QCoreApplication (QKException without one); blocks posted before its
    /// event loop starts run once it does.
    static QKDispatchQueue mainQueue();
    /// Qt's global thread pool; blocks may run concurrently.
    static QKDispatchQueue globalQueue();

    static void async(const QKDispatchQueue &queue, std::function<void()> block);

    /// True on the application's main thread.
    static bool isMainThread();
};
