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

QKFeedbackItem::QKFeedbackItem() : m_subItems(QKFeedbackItemList())
{
    m_subItems->reserve(4);
}

QKFeedbackItemPtr QKFeedbackItem::create()
{
    return QKFeedbackItemPtr::create();
}

void QKFeedbackItem::addSubItem(const QKFeedbackItemPtr &item)
{
    if (m_subItems)
        m_subItems->append(item);
}

void QKFeedbackItem::insertSubItem(const QKFeedbackItemPtr &item, qsizetype index)
{
    if (!m_subItems)
        return;
    if (index < 0 || index > m_subItems->size())
        throw std::out_of_range("QKFeedbackItem::insertSubItem: index " + std::to_string(index) +
                                " beyond bounds [0 .. " + std::to_string(m_subItems->size()) + "]");
    m_subItems->insert(index, item);
}

// What an item's picture is made from, and what has been made of it so far. Every
// form is kept once made; the lock lets any thread ask for any of them.
struct QKFeedbackItem::Picture
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
    if (!m_picture)
        return QImage();
    std::lock_guard lock(m_picture->mutex);
    Picture &p = *m_picture;
    if (!p.haveImage) {
        p.image = p.bands ? p.bands->imageWithPatch(p.patch, p.at) : QKPNGCodec::decode(p.pngLocked());
        p.haveImage = true;
    }
    return p.image;
}

void QKFeedbackItem::setImage(const QImage &image)
{
    m_picture.reset();
    if (image.isNull())
        return;
    m_picture = std::make_shared<Picture>();
    m_picture->image = image;
    m_picture->haveImage = true;
}

void QKFeedbackItem::setImage(const QKPNGBands &base, const QImage &patch, const QPoint &at)
{
    m_picture = std::make_shared<Picture>();
    m_picture->bands = base;
    m_picture->patch = patch;
    m_picture->at = at;
}

QByteArray QKFeedbackItem::imagePNG() const
{
    if (!m_picture)
        return QByteArray();
    std::lock_guard lock(m_picture->mutex);
    return m_picture->pngLocked();
}

QByteArray QKFeedbackItem::imageBase64() const
{
    if (!m_picture)
        return QByteArray();
    std::lock_guard lock(m_picture->mutex);
    return m_picture->base64Locked();
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
    coder.encodeObject(m_key, QStringLiteral("key"));
    coder.encodeObject(m_createdAt, QStringLiteral("createdAt"));
    coder.encodeObject(m_modifiedAt, QStringLiteral("modifiedAt"));
    coder.encodeObject(m_text, QStringLiteral("text"));
    coder.encodeObject(m_author, QStringLiteral("author"));
    coder.encodeObject(m_state, QStringLiteral("state"));
    QKArchiveSlice archived;
    QByteArray base64;
    if (m_picture) {
        std::lock_guard lock(m_picture->mutex);
        m_picture->checkArchivedLocked();
        // Text still in the archive it was read from is written from there.
        archived = m_picture->archived;
        if (!archived.bytes)
            base64 = m_picture->base64Locked();
    }
    if (archived.bytes)
        QKKeyedArchiveAccess::encodeText(coder, archived, QStringLiteral("image"));
    else
        coder.encodeASCIIString(base64, QStringLiteral("image"));
    QVariant subItems;
    if (m_subItems) {
        QVariantList list;
        list.reserve(m_subItems->size());
        for (const QKFeedbackItemPtr &item : *m_subItems) {
            // The reader refuses a nil sub-item; so does the writer, before the file is touched.
            if (!item)
                throw QKArchiveException(QStringLiteral("cannot archive a nil sub-item of item %1").arg(m_key));
            list.append(QVariant::fromValue(item.staticCast<QKCoding>()));
        }
        subItems = list;
    }
    coder.encodeObject(subItems, QStringLiteral("subItems"));
}

QKFeedbackItemPtr QKFeedbackItem::initWithCoder(QKKeyedUnarchiver &coder)
{
    auto item = create();
    item->m_key = coder.decodeString(QStringLiteral("key"));
    item->m_createdAt = coder.decodeDate(QStringLiteral("createdAt"));
    item->m_modifiedAt = coder.decodeDate(QStringLiteral("modifiedAt"));
    item->m_text = coder.decodeString(QStringLiteral("text"));
    item->m_author = coder.decodeString(QStringLiteral("author"));
    item->m_state = coder.decodeString(QStringLiteral("state"));
    // Left where it lies in the archive and decoded when first asked for: opening an
    // archive of many screenshots costs per item, not per byte.
    QKArchiveSlice image = QKKeyedArchiveAccess::decodeText(coder, QStringLiteral("image"));
    if (!image.text.isEmpty()) {
        item->m_picture = std::make_shared<Picture>();
        item->m_picture->archived = std::move(image);
    }
    item->m_subItems = coder.decodeArrayOfObjectsOfClass<QKFeedbackItem>(QStringLiteral("subItems"));
    return item;
}
