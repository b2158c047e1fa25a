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
// Fires once into a context's thread. It lives on no thread, so whichever thread
// drops the last copy of the hand-over may delete it.
class QKDeliveryRelay : public QObject
{
    Q_OBJECT
public:
    QKDeliveryRelay() { moveToThread(nullptr); }
signals:
    void fire();
};
} // namespace

std::function<void(std::function<void()>)> QKDispatch::deliverTo(const QObject *context)
{
    auto relay = std::make_shared<QKDeliveryRelay>();
    auto pending = std::make_shared<std::function<void()>>();
    // The connection is what knows whether the context still lives: Qt drops it, and
    // any call already posted to the context, when the context is destroyed.
    QObject::connect(
        relay.get(), &QKDeliveryRelay::fire, context,
        [pending] {
            if (auto block = std::exchange(*pending, {}))
                block();
        },
        Qt::ConnectionType(Qt::QueuedConnection | Qt::SingleShotConnection));
    return [relay, pending](std::function<void()> block) {
        *pending = std::move(block);
        emit relay->fire();
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
