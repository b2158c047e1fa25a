#include "QKDispatch.h"

#include "QKException.h"

#include <QCoreApplication>
#include <QMutex>
#include <QPointer>
#include <QThread>
#include <QThreadPool>

namespace {

// Lives on the main thread for as long as the application; queued calls on it
// run in the main event loop.
QObject *mainContext()
{
    static QMutex mutex;
    static QPointer<QObject> context;
    QMutexLocker lock(&mutex);
    if (!context) {
        auto *app = QCoreApplication::instance();
        if (!app)
            throw QKException(QStringLiteral("QKDispatch"), QStringLiteral("the main queue needs a QCoreApplication"));
        auto *object = new QObject;
        object->moveToThread(app->thread());
        object->setParent(app);
        context = object;
    }
    return context.data();
}

} // namespace

QKDispatchQueue QKDispatch::mainQueue()
{
    return QKDispatchQueue(QKDispatchQueue::Kind::Main, nullptr);
}

QKDispatchQueue QKDispatch::globalQueue()
{
    return QKDispatchQueue(QKDispatchQueue::Kind::Global, nullptr);
}

QKDispatchQueue QKDispatch::queueForObject(QObject *context)
{
    return QKDispatchQueue(QKDispatchQueue::Kind::Object, context);
}

void QKDispatch::async(const QKDispatchQueue &queue, std::function<void()> block)
{
    switch (queue.m_kind) {
    case QKDispatchQueue::Kind::Main:
        QMetaObject::invokeMethod(mainContext(), std::move(block), Qt::QueuedConnection);
        break;
    case QKDispatchQueue::Kind::Global:
        QThreadPool::globalInstance()->start(std::move(block));
        break;
    case QKDispatchQueue::Kind::Object:
        QMetaObject::invokeMethod(queue.m_context, std::move(block), Qt::QueuedConnection);
        break;
    }
}

bool QKDispatch::isMainThread()
{
    auto *app = QCoreApplication::instance();
    return app && QThread::currentThread() == app->thread();
}
