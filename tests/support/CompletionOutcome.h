#pragma once

#include "base/QKError.h"
#include "base/QKURLSession.h"
#include "data/QKPlatformFeedbackSource.h"

#include <QImage>
#include <QThread>

#include <mutex>
#include <optional>

// What a data-source or session completion delivered, how often, and on which thread;
// filled on the network thread or a global-queue thread, read by the test's thread.
struct Outcome
{
    using Source = QKPlatformFeedbackSource;

    std::mutex mutex; // a pthread lock, which ThreadSanitizer sees
    int calls = 0;
    QThread *thread = nullptr;
    std::optional<QKFeedbackItemList> items;
    QImage image;
    std::optional<QKError> error;
    QByteArray body;
    int status = 0;

    bool done()
    {
        std::lock_guard lock(mutex);
        return calls > 0;
    }
    int count()
    {
        std::lock_guard lock(mutex);
        return calls;
    }
    void record(std::optional<QKError> e)
    {
        std::lock_guard lock(mutex);
        ++calls;
        thread = QThread::currentThread();
        error = e;
    }
    // Sets one field under the lock, then records the call.
    template <class Set>
    void deliver(std::optional<QKError> e, Set set)
    {
        {
            std::lock_guard lock(mutex);
            set();
        }
        record(e);
    }
    Source::ItemsCompletion items_()
    {
        return [this](std::optional<QKFeedbackItemList> list, std::optional<QKError> e) {
            deliver(e, [&] { items = list; });
        };
    }
    Source::ErrorCompletion error_()
    {
        return [this](std::optional<QKError> e) { record(e); };
    }
    Source::ImageCompletion image_()
    {
        return [this](QImage i, std::optional<QKError> e) { deliver(e, [&] { image = i; }); };
    }
    QKURLSession::Completion task_()
    {
        return [this](const QByteArray &b, int s, std::optional<QKError> e) {
            deliver(e, [&] {
                body = b;
                status = s;
            });
        };
    }
};
