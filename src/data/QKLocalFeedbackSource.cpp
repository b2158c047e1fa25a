#include "QKLocalFeedbackSource.h"

#include "../base/QKArchiveException.h"
#include "../base/QKDocumentsDirectory.h"
#include "../base/QKKeyedArchiver.h"
#include "../base/QKKeyedUnarchiver.h"
#include "../base/QKLocalizedString.h"

#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>

#include <algorithm>

namespace {
Q_LOGGING_CATEGORY(lcArchive, "murmora.archive")
}

class QKLocalFeedbackSourcePrivate
{
public:
    QKFeedbackItemList items;
    QString userName;
    std::optional<QKLocalFeedbackSource::DamagedArchive> damaged;
};

QKLocalFeedbackSource::QKLocalFeedbackSource(QObject *parent)
    : QKFeedbackDataSource(parent), d(std::make_unique<QKLocalFeedbackSourcePrivate>())
{
    loadData();
}

QKLocalFeedbackSource::~QKLocalFeedbackSource()
{
    save();
}

QString QKLocalFeedbackSource::userName() const
{
    return d->userName;
}
void QKLocalFeedbackSource::setUserName(const QString &userName)
{
    d->userName = userName;
}
std::optional<QKLocalFeedbackSource::DamagedArchive> QKLocalFeedbackSource::damagedArchive() const
{
    return d->damaged;
}
QKFeedbackItemList QKLocalFeedbackSource::items() const
{
    return d->items;
}

QSharedPointer<QKLocalFeedbackSource> QKLocalFeedbackSource::sharedItems()
{
    // Never released, so it is not saved from static destructors after the
    // application (and its paths) are gone.
    static auto *shared = new QSharedPointer<QKLocalFeedbackSource>();
    if (!*shared) {
        *shared = QSharedPointer<QKLocalFeedbackSource>::create();
        (*shared)->loadData();
    }
    return *shared;
}

QString QKLocalFeedbackSource::archivePath()
{
    return QKDocumentsDirectory() + QStringLiteral("/qkfeedback.plist");
}

QKError QKLocalFeedbackSource::notFoundError()
{
    return QKError(QKLocalizedString("Not Found FeedbackItem"), 1);
}

void QKLocalFeedbackSource::loadData()
{
    QKFeedbackItemList loaded;
    try {
        const QVariant root = QKKeyedUnarchiver::unarchiveObjectWithFile(archivePath());
        if (root.isValid()) {
            if (root.metaType().id() != QMetaType::QVariantList)
                throw QKArchiveException(QStringLiteral("the root of %1 is not an array of items").arg(archivePath()));
            const QVariantList values = root.toList();
            loaded.reserve(values.size());
            for (const QVariant &value : values) {
                auto item = value.value<QKCodingPtr>().dynamicCast<QKFeedbackItem>();
                if (!item)
                    throw QKArchiveException(
                        QStringLiteral("%1 holds an entry that is not a QKFeedbackItem").arg(archivePath()));
                loaded.append(item);
            }
            d->damaged.reset(); // only a file read clears it: sharedItems() loads twice
        }
    } catch (const QKArchiveException &e) {
        setAside(e.reason());
        loaded.clear();
    }
    std::stable_sort(loaded.begin(), loaded.end(), [](const QKFeedbackItemPtr &a, const QKFeedbackItemPtr &b) {
        const QDateTime &x = a->createdAt();
        const QDateTime &y = b->createdAt();
        if (x.isValid() != y.isValid())
            return x.isValid();
        return x.isValid() && x > y;
    });
    if (loaded.isEmpty())
        loaded.reserve(4);
    d->items = loaded;
}

// Keeps the user's file for a person to look at, out of the way of the next save.
void QKLocalFeedbackSource::setAside(const QString &reason)
{
    const QString path = archivePath();
    const QString stem = path + QStringLiteral(".damaged-") +
                         QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMdd'T'HHmmss'Z'"));
    QString movedTo;
    // QFile::rename never replaces an existing file.
    for (int n = 1; n <= 1000 && movedTo.isEmpty(); ++n) {
        const QString candidate = n == 1 ? stem : stem + QLatin1Char('-') + QString::number(n);
        if (!QFileInfo::exists(candidate) && QFile::rename(path, candidate))
            movedTo = candidate;
    }
    d->damaged = DamagedArchive{reason, movedTo};
    if (movedTo.isEmpty())
        qCWarning(lcArchive,
                  "the feedback archive %s is damaged (%s) and could not be moved aside; it is left "
                  "as it is and nothing is saved over it",
                  qUtf8Printable(path), qUtf8Printable(reason));
    else
        qCWarning(lcArchive, "the feedback archive was damaged (%s); it was moved to %s and the list starts empty",
                  qUtf8Printable(reason), qUtf8Printable(movedTo));
}

bool QKLocalFeedbackSource::save()
{
    // A damaged file that could not be moved is the user's only copy: never written over.
    if (d->damaged && d->damaged->movedTo.isEmpty() && QFileInfo::exists(archivePath())) {
        qCWarning(lcArchive, "not saving the feedback list over the damaged archive %s", qUtf8Printable(archivePath()));
        return false;
    }
    QVariantList values;
    values.reserve(d->items.size());
    for (const QKFeedbackItemPtr &item : std::as_const(d->items))
        values.append(QVariant::fromValue(item.staticCast<QKCoding>()));
    QString error;
    if (QKKeyedArchiver::archiveRootObject(values, archivePath(), &error))
        return true;
    qCWarning(lcArchive, "the feedback list could not be saved to %s: %s", qUtf8Printable(archivePath()),
              qUtf8Printable(error));
    return false;
}

QKFeedbackItemPtr QKLocalFeedbackSource::itemForKey(const QString &key) const
{
    if (key.isNull())
        return {};
    for (const QKFeedbackItemPtr &item : d->items)
        if (!item->key().isNull() && item->key() == key)
            return item;
    return {};
}

bool QKLocalFeedbackSource::implements(Operation operation) const
{
    switch (operation) {
    case Operation::FeedbackItemsByState:
    case Operation::FeedbackItemsByStateSkip:
    case Operation::SubItemsForKey:
        return true;
    default:
        return false;
    }
}

void QKLocalFeedbackSource::feedbackItems(ItemsCompletion completionHandler)
{
    completionHandler(d->items, std::nullopt);
}

void QKLocalFeedbackSource::feedbackItemsByState(const QString &state, ItemsCompletion completionHandler)
{
    feedbackItemsByState(state, 0, std::move(completionHandler));
}

void QKLocalFeedbackSource::feedbackItemsByState(const QString &state, qint64, ItemsCompletion completionHandler)
{
    if (state.isNull()) {
        feedbackItems(std::move(completionHandler));
        return;
    }
    QKFeedbackItemList matching;
    matching.reserve(4);
    for (const QKFeedbackItemPtr &item : std::as_const(d->items))
        if (!item->state().isNull() && item->state() == state)
            matching.append(item);
    completionHandler(matching, std::nullopt);
}

void QKLocalFeedbackSource::addFeedback(const QKFeedbackItemPtr &item, ErrorCompletion completionHandler)
{
    // A null item would be archived as nil, which the next load refuses as damage.
    if (item)
        d->items.append(item);
    save();
    completionHandler(std::nullopt);
}

void QKLocalFeedbackSource::addFeedbackItems(const QKFeedbackItemList &items, ErrorCompletion completionHandler)
{
    for (const QKFeedbackItemPtr &item : items)
        if (item)
            d->items.append(item);
    save();
    completionHandler(std::nullopt);
}

void QKLocalFeedbackSource::editWithKey(const QString &key, const QString &state, ErrorCompletion completionHandler)
{
    const QKFeedbackItemPtr item = itemForKey(key);
    if (!item) {
        completionHandler(notFoundError());
        return;
    }
    item->setState(state);
    save();
    completionHandler(std::nullopt);
}

void QKLocalFeedbackSource::deleteWithKey(const QString &key, ErrorCompletion completionHandler)
{
    // Confirms the key and keeps the item: this source never removes what it stored.
    if (!itemForKey(key)) {
        completionHandler(notFoundError());
        return;
    }
    save();
    completionHandler(std::nullopt);
}

void QKLocalFeedbackSource::subItemsForKey(const QString &key, ItemsCompletion completionHandler)
{
    const QKFeedbackItemPtr item = itemForKey(key);
    if (!item) {
        completionHandler(std::nullopt, notFoundError());
        return;
    }
    save();
    completionHandler(item->subItems(), std::nullopt);
}
