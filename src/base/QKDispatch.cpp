#include "QKDispatch.h"

#include "QKException.h"
#include "QKThreadHandOff_p.h"

#include <QCoreApplication>
#include <QThread>
#include <QThreadPool>

#include <deque>
#include <mutex>

namespace {

// Lives on the main thread for the rest of the process. Made by the application's
// constructor, on that thread, so that every thread that posts sees it whole.
std::mutex mainMutex;
QKThreadHandOff *mainHandOffObject = nullptr;

void createMainHandOff()
{
    std::lock_guard lock(mainMutex);
    if (!mainHandOffObject)
        mainHandOffObject = new QKThreadHandOff;
}
Q_COREAPP_STARTUP_FUNCTION(createMainHandOff)

QKThreadHandOff *mainHandOff()
{
    std::lock_guard lock(mainMutex);
    if (!mainHandOffObject || !QCoreApplication::instance())
        throw QKException(QStringLiteral("QKDispatch"), QStringLiteral("the main queue needs a QCoreApplication"));
    return mainHandOffObject;
}

// The global queue's blocks, taken one per runnable, in the order posted.
struct GlobalBlocks
{
    std::mutex mutex;
    std::deque<std::function<void()>> blocks;
};

GlobalBlocks &globalBlocks()
{
    static GlobalBlocks blocks;
    return blocks;
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
    case QKDispatchQueue::Kind::Main:
        mainHandOff()->post(std::move(block));
        break;
    case QKDispatchQueue::Kind::Global: {
        GlobalBlocks &global = globalBlocks();
        {
            std::lock_guard lock(global.mutex);
            global.blocks.push_back(std::move(block));
        }
        QThreadPool::globalInstance()->start(new GlobalRunnable);
        break;
    }
    }
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
