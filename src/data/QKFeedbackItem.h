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
class QKFeedbackItemPrivate;

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
    /// A copy of every field; the sub-items are the same shared items, and the
    /// picture is shared until either item's image is set again.
    QKFeedbackItem(const QKFeedbackItem &other);
    /// Takes every field of `other`, as the copy constructor does.
    QKFeedbackItem &operator=(const QKFeedbackItem &other);
    ~QKFeedbackItem() override;
    /// A new empty item, shared.
    static QKFeedbackItemPtr create();

    /// The comments, in the order the data source gave them. std::nullopt (nil) only
    /// for an item read from an archive that had no "subItems"; then addSubItem does
    /// nothing. The non-const overload hands out the list itself, for changing in place.
    const std::optional<QKFeedbackItemList> &subItems() const;
    /// The sub-items themselves, for changing in place.
    std::optional<QKFeedbackItemList> &subItems();

    /// Appends `item`; does nothing while the sub-items are nil.
    void addSubItem(const QKFeedbackItemPtr &item);
    /// Inserts `item` at `index`; an index equal to the count appends, a larger one
    /// throws std::out_of_range. Does nothing while the sub-items are nil.
    void insertSubItem(const QKFeedbackItemPtr &item, qsizetype index);

    /// The item's key: the service's id, or a local one; null until stored.
    QString key() const;
    /// Sets key.
    void setKey(const QString &key);
    /// When the item was made, in UTC; invalid when unknown.
    QDateTime createdAt() const;
    /// Sets createdAt.
    void setCreatedAt(const QDateTime &date);
    /// When the item last changed, in UTC; invalid when unknown.
    QDateTime modifiedAt() const;
    /// Sets modifiedAt.
    void setModifiedAt(const QDateTime &date);
    /// The user's comment; null when there is none.
    QString text() const;
    /// Sets text.
    void setText(const QString &text);
    /// The name the item went out under; null when anonymous.
    QString author() const;
    /// Sets author.
    void setAuthor(const QString &author);
    /// "Open" or "Resolved" (localised); null for a comment.
    QString state() const;
    /// Sets state.
    void setState(const QString &state);
    /// The host's parameters sent with the item; never archived.
    QVariantMap params() const;
    /// Sets params.
    void setParams(const QVariantMap &params);

    /// The screenshot; a null image when there is none. An image read from an archive,
    /// or laid over a shared picture, is made on first use, once, on any thread.
    QImage image() const;
    /// Sets the screenshot; a null image removes it. Its PNG is made when first asked for.
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
    std::unique_ptr<QKFeedbackItemPrivate> d;
};

Q_DECLARE_METATYPE(QKFeedbackItemPtr)
