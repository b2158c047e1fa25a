#include "QKFeedbackItem.h"

#include "../base/QKBase64.h"
#include "../base/QKKeyedArchiver.h"
#include "../base/QKKeyedUnarchiver.h"
#include "../base/QKPNGCodec.h"

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

void QKFeedbackItem::setImage(const QImage &image)
{
    m_image = image;
    m_imagePNG.clear();
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
    // The PNG is kept once made: the local source rewrites every item on each change.
    if (m_imagePNG.isEmpty() && !m_image.isNull())
        m_imagePNG = QKPNGCodec::encode(m_image);
    const QString image = QKBase64::encodeWithLineBreaks(m_imagePNG);
    coder.encodeObject(m_key, QStringLiteral("key"));
    coder.encodeObject(m_createdAt, QStringLiteral("createdAt"));
    coder.encodeObject(m_modifiedAt, QStringLiteral("modifiedAt"));
    coder.encodeObject(m_text, QStringLiteral("text"));
    coder.encodeObject(m_author, QStringLiteral("author"));
    coder.encodeObject(m_state, QStringLiteral("state"));
    coder.encodeObject(image, QStringLiteral("image"));
    QVariant subItems;
    if (m_subItems) {
        QVariantList list;
        list.reserve(m_subItems->size());
        for (const QKFeedbackItemPtr &item : *m_subItems)
            list.append(QVariant::fromValue(item.staticCast<QKCoding>()));
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
    const QString image = coder.decodeString(QStringLiteral("image"));
    if (!image.isNull()) {
        const QByteArray png = QKBase64::decodeIgnoringUnknownCharacters(image);
        item->m_image = QKPNGCodec::decode(png);
        // Kept only when it is a PNG, so that re-archiving writes what encoding would.
        if (!item->m_image.isNull() && png.startsWith("\x89PNG\r\n\x1a\n"))
            item->m_imagePNG = png;
    }
    item->m_subItems = coder.decodeArrayOfObjectsOfClass<QKFeedbackItem>(QStringLiteral("subItems"));
    return item;
}
