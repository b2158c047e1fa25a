#include "QKFeedbackItem.h"

#include "../base/QKArchiveException.h"
#include "../base/QKBase64.h"
#include "../base/QKKeyedArchive_p.h"
#include "../base/QKKeyedArchiver.h"
#include "../base/QKKeyedUnarchiver.h"
#include "../base/QKPNGCodec.h"

#include <mutex>
#include <stdexcept>

namespace {
const QString ClassName = QStringLiteral("QKFeedbackItem");

const bool registered = [] {
    QKKeyedUnarchiver::registerClass(
        ClassName, [](QKKeyedUnarchiver &coder) -> QKCodingPtr { return QKFeedbackItem::initWithCoder(coder); });
    return true;
}();
} // namespace

struct QKFeedbackItemPicture;

class QKFeedbackItemPrivate
{
public:
    std::optional<QKFeedbackItemList> subItems;
    QString key;
    QDateTime createdAt;
    QDateTime modifiedAt;
    QString text;
    QString author;
    std::shared_ptr<QKFeedbackItemPicture> picture;
    QString state;
    QVariantMap params;
};

QKFeedbackItem::QKFeedbackItem() : d(std::make_unique<QKFeedbackItemPrivate>())
{
    d->subItems.emplace();
    d->subItems->reserve(4);
}

QKFeedbackItem::QKFeedbackItem(const QKFeedbackItem &other)
    : QKCoding(other), d(std::make_unique<QKFeedbackItemPrivate>(*other.d))
{}

QKFeedbackItem &QKFeedbackItem::operator=(const QKFeedbackItem &other)
{
    *d = *other.d;
    return *this;
}

QKFeedbackItem::~QKFeedbackItem() = default;

const std::optional<QKFeedbackItemList> &QKFeedbackItem::subItems() const
{
    return d->subItems;
}
std::optional<QKFeedbackItemList> &QKFeedbackItem::subItems()
{
    return d->subItems;
}
QString QKFeedbackItem::key() const
{
    return d->key;
}
void QKFeedbackItem::setKey(const QString &value)
{
    d->key = value;
}
QDateTime QKFeedbackItem::createdAt() const
{
    return d->createdAt;
}
void QKFeedbackItem::setCreatedAt(const QDateTime &value)
{
    d->createdAt = value;
}
QDateTime QKFeedbackItem::modifiedAt() const
{
    return d->modifiedAt;
}
void QKFeedbackItem::setModifiedAt(const QDateTime &value)
{
    d->modifiedAt = value;
}
QString QKFeedbackItem::text() const
{
    return d->text;
}
void QKFeedbackItem::setText(const QString &value)
{
    d->text = value;
}
QString QKFeedbackItem::author() const
{
    return d->author;
}
void QKFeedbackItem::setAuthor(const QString &value)
{
    d->author = value;
}
QString QKFeedbackItem::state() const
{
    return d->state;
}
void QKFeedbackItem::setState(const QString &value)
{
    d->state = value;
}
QVariantMap QKFeedbackItem::params() const
{
    return d->params;
}
void QKFeedbackItem::setParams(const QVariantMap &value)
{
    d->params = value;
}

QKFeedbackItemPtr QKFeedbackItem::create()
{
    return QKFeedbackItemPtr::create();
}

void QKFeedbackItem::addSubItem(const QKFeedbackItemPtr &item)
{
    if (d->subItems)
        d->subItems->append(item);
}

void QKFeedbackItem::insertSubItem(const QKFeedbackItemPtr &item, qsizetype index)
{
    if (!d->subItems)
        return;
    if (index < 0 || index > d->subItems->size())
        throw std::out_of_range("QKFeedbackItem::insertSubItem: index " + std::to_string(index) +
                                " beyond bounds [0 .. " + std::to_string(d->subItems->size()) + "]");
    d->subItems->insert(index, item);
}

// What an item's picture is made from, and what has been made of it so far. Every
// form is kept once made; the lock lets any thread ask for any of them.
struct QKFeedbackItemPicture
{
    std::mutex mutex;
    bool haveImage = false;
    QImage image;
    QByteArray png;
    QByteArray base64;
    // Text read from an archive, where it lies in the archive's bytes; not copied
    // unless handed out, and looked at once before it is written or handed out.
    QKArchiveSlice archived;
    bool archivedChecked = false;
    std::optional<QKPNGBands> bands;
    QImage patch;
    QPoint at;

    const QByteArray &pngLocked()
    {
        if (png.isNull()) {
            if (bands)
                png = bands->encodeWithPatch(patch, at);
            else if (!base64.isNull())
                png = QKBase64::decodeASCIIIgnoringUnknownCharacters(base64);
            else if (archived.bytes)
                png = QKBase64::decodeASCIIIgnoringUnknownCharacters(archived.text);
            else if (!image.isNull())
                png = QKPNGCodec::encode(image);
        }
        return png;
    }

    // A damaged archive may hold other bytes; Base64 readers skip them anyway, and the
    // text goes on as ASCII wherever it is written.
    void checkArchivedLocked()
    {
        if (!archived.bytes || archivedChecked)
            return;
        archivedChecked = true;
        if (archived.bytes->isASCII(archived.text))
            return;
        base64 = archived.text.toByteArray();
        base64.removeIf([](char c) { return uchar(c) >= 0x80; });
        archived = {};
    }

    const QByteArray &base64Locked()
    {
        checkArchivedLocked();
        if (base64.isNull() && archived.bytes) {
            // Handed out, so it must not point into a mapping that goes with the archive.
            base64 = archived.text.toByteArray();
            archived = {};
        }
        if (base64.isNull())
            base64 = QKBase64::encodeWithLineBreaksToASCII(pngLocked());
        return base64;
    }
};

QImage QKFeedbackItem::image() const
{
    if (!d->picture)
        return QImage();
    std::lock_guard lock(d->picture->mutex);
    QKFeedbackItemPicture &p = *d->picture;
    if (!p.haveImage) {
        p.image = p.bands ? p.bands->imageWithPatch(p.patch, p.at) : QKPNGCodec::decode(p.pngLocked());
        p.haveImage = true;
    }
    return p.image;
}

void QKFeedbackItem::setImage(const QImage &image)
{
    d->picture.reset();
    if (image.isNull())
        return;
    d->picture = std::make_shared<QKFeedbackItemPicture>();
    d->picture->image = image;
    d->picture->haveImage = true;
}

void QKFeedbackItem::setImage(const QKPNGBands &base, const QImage &patch, const QPoint &at)
{
    d->picture = std::make_shared<QKFeedbackItemPicture>();
    d->picture->bands = base;
    d->picture->patch = patch;
    d->picture->at = at;
}

QByteArray QKFeedbackItem::imagePNG() const
{
    if (!d->picture)
        return QByteArray();
    std::lock_guard lock(d->picture->mutex);
    return d->picture->pngLocked();
}

QByteArray QKFeedbackItem::imageBase64() const
{
    if (!d->picture)
        return QByteArray();
    std::lock_guard lock(d->picture->mutex);
    return d->picture->base64Locked();
}

QString QKFeedbackItem::encodeToBase64String(const QImage &image)
{
    return QKBase64::encodeWithLineBreaks(QKPNGCodec::encode(image));
}

QImage QKFeedbackItem::decodeBase64ToImage(const QString &text)
{
    if (text.isNull())
        return QImage();
    return QKPNGCodec::decode(QKBase64::decodeIgnoringUnknownCharacters(text));
}

QStringList QKFeedbackItem::archiveClassChain() const
{
    Q_UNUSED(registered);
    return {ClassName, QStringLiteral("NSObject")};
}

void QKFeedbackItem::encodeWithCoder(QKKeyedArchiver &coder) const
{
    coder.encodeObject(d->key, QStringLiteral("key"));
    coder.encodeObject(d->createdAt, QStringLiteral("createdAt"));
    coder.encodeObject(d->modifiedAt, QStringLiteral("modifiedAt"));
    coder.encodeObject(d->text, QStringLiteral("text"));
    coder.encodeObject(d->author, QStringLiteral("author"));
    coder.encodeObject(d->state, QStringLiteral("state"));
    QKArchiveSlice archived;
    QByteArray base64;
    if (d->picture) {
        std::lock_guard lock(d->picture->mutex);
        d->picture->checkArchivedLocked();
        // Text still in the archive it was read from is written from there.
        archived = d->picture->archived;
        if (!archived.bytes)
            base64 = d->picture->base64Locked();
    }
    if (archived.bytes)
        QKKeyedArchiveAccess::encodeText(coder, archived, QStringLiteral("image"));
    else
        coder.encodeASCIIString(base64, QStringLiteral("image"));
    QVariant subItems;
    if (d->subItems) {
        QVariantList list;
        list.reserve(d->subItems->size());
        for (const QKFeedbackItemPtr &item : *d->subItems) {
            // The reader refuses a nil sub-item; so does the writer, before the file is touched.
            if (!item)
                throw QKArchiveException(QStringLiteral("cannot archive a nil sub-item of item %1").arg(d->key));
            list.append(QVariant::fromValue(item.staticCast<QKCoding>()));
        }
        subItems = list;
    }
    coder.encodeObject(subItems, QStringLiteral("subItems"));
}

QKFeedbackItemPtr QKFeedbackItem::initWithCoder(QKKeyedUnarchiver &coder)
{
    auto item = create();
    item->d->key = coder.decodeString(QStringLiteral("key"));
    item->d->createdAt = coder.decodeDate(QStringLiteral("createdAt"));
    item->d->modifiedAt = coder.decodeDate(QStringLiteral("modifiedAt"));
    item->d->text = coder.decodeString(QStringLiteral("text"));
    item->d->author = coder.decodeString(QStringLiteral("author"));
    item->d->state = coder.decodeString(QStringLiteral("state"));
    // Left where it lies in the archive and decoded when first asked for: opening an
    // archive of many screenshots costs per item, not per byte.
    QKArchiveSlice image = QKKeyedArchiveAccess::decodeText(coder, QStringLiteral("image"));
    if (!image.text.isEmpty()) {
        item->d->picture = std::make_shared<QKFeedbackItemPicture>();
        item->d->picture->archived = std::move(image);
    }
    item->d->subItems = coder.decodeArrayOfObjectsOfClass<QKFeedbackItem>(QStringLiteral("subItems"));
    return item;
}
