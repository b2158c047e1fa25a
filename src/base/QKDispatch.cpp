#include "QKDispatch.h"

#include "QKException.h"
#include "QKThreadHandOff_p.h"

#include <QCoreApplication>
#include <QThread>
#include <QThreadPool>

#include <deque>
#include <mutex>

namespace {

// The main queue: lives on the main thread for the rest of the process. Made by the
// application's constructor, on that thread, so that every thread that posts sees it
// whole; closed when the application goes, after which blocks are dropped.
struct MainQueue
{
    std::mutex mutex;
    QKThreadHandOff *handOff = nullptr;
    bool open = false;
};

MainQueue &mainQueueState()
{
    static auto *queue = new MainQueue; // never destroyed, like the global blocks below
    return *queue;
}

void closeMainQueue()
{
    MainQueue &queue = mainQueueState();
    std::lock_guard lock(queue.mutex);
    queue.open = false;
}

void openMainQueue()
{
    MainQueue &queue = mainQueueState();
    std::lock_guard lock(queue.mutex);
    if (!queue.handOff)
        queue.handOff = new QKThreadHandOff;
    queue.open = true;
    qAddPostRoutine(closeMainQueue);
}
Q_COREAPP_STARTUP_FUNCTION(openMainQueue)

// The global queue's blocks, taken one per runnable, in the order posted.
struct GlobalBlocks
{
    std::mutex mutex;
    std::deque<std::function<void()>> blocks;
};

GlobalBlocks &globalBlocks()
{
    // Never destroyed: a pool thread may still be taking its block while the process exits.
    static auto *blocks = new GlobalBlocks;
    return *blocks;
}

class GlobalRunnable : public QRunnable
{
public:
    void run() override
    {
        std::function<void()> block;
        {
            GlobalBlocks &global = globalBlocks();
            std::lock_guard lock(global.mutex);
            block = std::move(global.blocks.front());
            global.blocks.pop_front();
        }
        block();
    }
};

} // namespace

QKDispatchQueue QKDispatch::mainQueue()
{
    return QKDispatchQueue(QKDispatchQueue::Kind::Main);
}

QKDispatchQueue QKDispatch::globalQueue()
{
    return QKDispatchQueue(QKDispatchQueue::Kind::Global);
}

void QKDispatch::async(const QKDispatchQueue &queue, std::function<void()> block)
{
    switch (queue.m_kind) {
    case QKDispatchQueue::Kind::Main: {
        MainQueue &main = mainQueueState();
        std::lock_guard lock(main.mutex);
        if (!main.handOff)
            throw QKException(QStringLiteral("QKDispatch"), QStringLiteral("the main queue needs a QCoreApplication"));
        // Nothing runs on the main thread once its application is gone: a completion
        // arriving during shutdown is dropped, never thrown at a pool thread.
        if (main.open)
            main.handOff->post(std::move(block));
        break;
    }
    case QKDispatchQueue::Kind::Global: {
        // Qt's global pool is gone once the application has waited for it.
        QThreadPool *pool = QThreadPool::globalInstance();
        if (!pool)
            break;
        GlobalBlocks &global = globalBlocks();
        {
            std::lock_guard lock(global.mutex);
            global.blocks.push_back(std::move(block));
        }
        pool->start(new GlobalRunnable);
        break;
    }
    }
}

namespace {
// Everything a hand-over shares between threads is guarded by this standard mutex:
// Qt's own locks are invisible to ThreadSanitizer, as Qt is not built with it.
std::mutex &deliveryMutex()
{
    static std::mutex mutex;
    return mutex;
}

struct QKDeliveryState
{
    class QKDelivery *receiver = nullptr; // null once it ran, its context went, or it was dropped
    std::function<void()> block;
    bool posted = false;
};

// Lives on the context's thread and runs the block there. Its slots are connected by
// name, so that no functor made on one thread is read on another.
class QKDelivery : public QObject
{
    Q_OBJECT
public:
    explicit QKDelivery(std::shared_ptr<QKDeliveryState> state)
    {
        std::lock_guard lock(deliveryMutex());
        m_state = std::move(state);
    }
    ~QKDelivery() override
    {
        std::lock_guard lock(deliveryMutex());
        m_state.reset();
    }

public slots:
    void run()
    {
        std::function<void()> block;
        {
            std::lock_guard lock(deliveryMutex());
            block = std::exchange(m_state->block, {});
            m_state->receiver = nullptr;
        }
        deleteLater();
        if (block)
            block();
    }
    void contextGone()
    {
        {
            std::lock_guard lock(deliveryMutex());
            m_state->block = {};
            m_state->receiver = nullptr;
        }
        deleteLater();
    }

private:
    std::shared_ptr<QKDeliveryState> m_state;
};

// Held by the function deliverTo returns: dropping it uncalled lets the receiver go.
struct QKDeliveryHandle
{
    std::shared_ptr<QKDeliveryState> state = std::make_shared<QKDeliveryState>();
    ~QKDeliveryHandle()
    {
        std::lock_guard lock(deliveryMutex());
        if (state->receiver && !state->posted)
            state->receiver->deleteLater();
    }
};
} // namespace

std::function<void(std::function<void()>)> QKDispatch::deliverTo(const QObject *context)
{
    auto handle = std::make_shared<QKDeliveryHandle>();
    if (!context)
        return [handle](std::function<void()>) {};
    auto *receiver = new QKDelivery(handle->state);
    receiver->moveToThread(context->thread());
    {
        std::lock_guard lock(deliveryMutex());
        handle->state->receiver = receiver;
    }
    // The context's end reaches the receiver on its own thread, before any call still
    // queued for it, which then finds no block.
    QObject::connect(context, SIGNAL(destroyed()), receiver, SLOT(contextGone()), Qt::DirectConnection);
    return [handle](std::function<void()> block) {
        std::lock_guard lock(deliveryMutex());
        QKDeliveryState &state = *handle->state;
        if (!state.receiver || state.posted)
            return;
        state.block = std::move(block);
        state.posted = true;
        QMetaObject::invokeMethod(state.receiver, "run", Qt::QueuedConnection);
    };
}

bool QKDispatch::isMainThread()
{
    auto *app = QCoreApplication::instance();
    return app && QThread::currentThread() == app->thread();
}

void QKAssertMainThread(std::source_location where)
{
    if (QKDispatch::isMainThread())
        return;
    qFatal("Murmora: %s (%s:%u) must run on the main thread, not on thread %p", where.function_name(),
           where.file_name(), unsigned(where.line()), static_cast<void *>(QThread::currentThread()));
}

#include "QKDispatch.moc"
