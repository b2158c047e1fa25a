#pragma once

#include <QObject>

#include <deque>
#include <functional>
#include <mutex>

// Runs blocks on the thread this object lives on, in the order posted. The blocks
// travel through a standard mutex rather than inside Qt's events, so that the
// hand-off is visible to ThreadSanitizer even though Qt is not built with it.
class QKThreadHandOff : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;

    void post(std::function<void()> block);

private:
    Q_INVOKABLE void drain();

    std::mutex m_mutex;
    std::deque<std::function<void()>> m_blocks;
};
