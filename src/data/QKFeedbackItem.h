#pragma once

#include "../base/QKCoding.h"
#include "../base/QKPNGCodec.h"

#include <QDateTime>
#include <QImage>
#include <QList>
#include <QSharedPointer>
#include <QString>
#include <QVariantMap>

#include <memory>
#include <optional>

class QKKeyedUnarchiver;
class QKFeedbackItem;

using QKFeedbackItemPtr = QSharedPointer<QKFeedbackItem>;
using QKFeedbackItemList = QList<QKFeedbackItemPtr>;

/// One feedback thread as the user sent it, or one comment on a thread (a comment
/// is an item in its parent's sub-items). Items are shared (QKFeedbackItemPtr) and
/// changed in place by their holders; an item is not thread-safe, so only one thread
/// touches it at a time.
///
/// Archived by key as "QKFeedbackItem": key, createdAt, modifiedAt, text, author,
/// state, image (its PNG as Base64 text) and subItems. `params` is never archived.
class MURMORA_DATA_EXPORT QKFeedbackItem : public QKCoding
{
public:
    /// An item with every field nil and an empty sub-item list.
    QKFeedbackItem();
    static QKFeedbackItemPtr create();

    /// The comments, in the order the data source gave them. std::nullopt (nil) only
    /// for an item read from an archive that had no "subItems"; then addSubItem does
    /// nothing. The non-const overload hands out the list itself, for changing in place.
    const std::optional<QKFeedbackItemList> &subItems() const { return m_subItems; }
    std::optional<QKFeedbackItemList> &subItems() { return m_subItems; }

    /// Appends `item`; does nothing while the sub-items are nil.
    void addSubItem(const QKFeedbackItemPtr &item);
    /// Inserts `item` at `index`; an index equal to the count appends, a larger one
    /// throws std::out_of_range. Does nothing while the sub-items are nil.
    void insertSubItem(const QKFeedbackItemPtr &item, qsizetype index);

    QString key() const { return m_key; }
    void setKey(const QString &key) { m_key = key; }
    QDateTime createdAt() const { return m_createdAt; }
    void setCreatedAt(const QDateTime &date) { m_createdAt = date; }
    QDateTime modifiedAt() const { return m_modifiedAt; }
    void setModifiedAt(const QDateTime &date) { m_modifiedAt = date; }
    QString text() const { return m_text; }
    void setText(const QString &text) { m_text = text; }
    QString author() const { return m_author; }
    void setAuthor(const QString &author) { m_author = author; }
    QString state() const { return m_state; }
    void setState(const QString &state) { m_state = state; }
    QVariantMap params() const { return m_params; }
    void setParams(const QVariantMap &params) { m_params = params; }

    /// The screenshot; a null image when there is none. An image read from an archive,
    /// or laid over a shared picture, is made on first use, once, on any thread.
    QImage image() const;
    void setImage(const QImage &image);
    /// The image as `base` with `patch` laid over it at `at` (in pixels): a send's
    /// items share one screenshot, and their PNGs share its compressed bands.
    void setImage(const QKPNGBands &base, const QImage &patch, const QPoint &at);
    /// The image as PNG bytes, encoded on first use and kept; null without an image.
    /// An image read from an archive keeps the bytes it was read from: its text stays
    /// in the archive's file mapping, which the item holds, until it is first used.
    QByteArray imagePNG() const;
    /// imagePNG() as Base64 text in ASCII, lines of 64 characters joined by CR LF,
    /// as archives and the service carry it; kept once made. Always an array of its
    /// own: never one that points into an archive's mapping.
    QByteArray imageBase64() const;
    /// The image's PNG as Base64 text, lines of 64 characters joined by CR LF;
    /// a null image gives a null string.
    static QString encodeToBase64String(const QImage &image);
    /// Decodes Base64 text (skipping characters outside the alphabet) into an image;
    /// a null string or undecodable bytes give a null image.
    static QImage decodeBase64ToImage(const QString &text);

    QStringList archiveClassChain() const override;
    void encodeWithCoder(QKKeyedArchiver &coder) const override;
    /// Reads an item from the fields the unarchiver is positioned on.
    static QKFeedbackItemPtr initWithCoder(QKKeyedUnarchiver &coder);

private:
    std::optional<QKFeedbackItemList> m_subItems;
    QString m_key;
    QDateTime m_createdAt;
    QDateTime m_modifiedAt;
    QString m_text;
    QString m_author;
    struct Picture;
    std::shared_ptr<Picture> m_picture;
    QString m_state;
    QVariantMap m_params;
};

Q_DECLARE_METATYPE(QKFeedbackItemPtr)
