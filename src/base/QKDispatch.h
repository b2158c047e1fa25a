#pragma once

#include "QKGlobal.h"

#include <functional>

class QObject;

/// Where a block runs. The main queue is the application's main thread, the
/// global queue Qt's global thread pool; a queue may also be bound to a QObject
/// and then runs blocks on that object's thread.
class MURMORA_DATA_EXPORT QKDispatchQueue
{
public:
    enum class Kind { Main, Global, Object };

    Kind kind() const { return m_kind; }

private:
    friend class QKDispatch;
    QKDispatchQueue(Kind kind, QObject *context) : m_kind(kind), m_context(context) {}
    Kind m_kind;
    QObject *m_context;
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
    /// Runs blocks on `context`'s thread (its event loop); `context` must outlive them
    /// or they are dropped with it.
    static QKDispatchQueue queueForObject(QObject *context);

    static void async(const QKDispatchQueue &queue, std::function<void()> block);

    /// True on the application's main thread.
    static bool isMainThread();
};
