#pragma once

#include "data/QKFeedbackItem.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>

/// The JSON form of items that the command-line tools print and read: every field,
/// dates in ISO 8601 UTC with milliseconds, the image as its pixel size and the
/// SHA-256 of its PNG bytes, sub-items nested (null when the item has none at all).
class QKItemJSON
{
public:
    static QJsonObject fromItem(const QKFeedbackItem &item);
    static QJsonArray fromItems(const QKFeedbackItemList &items);
    /// Any archived value: items as above, dates as ISO text, bytes as Base64.
    static QJsonValue fromValue(const QVariant &value);

    /// An item from its JSON form. "imageFile" names an image file to load; the
    /// "image" summary is ignored. An absent "subItems" gives an empty list, null gives
    /// none. Throws std::runtime_error saying what is wrong.
    static QKFeedbackItemPtr toItem(const QJsonObject &object);
    /// A JSON value as an archivable value (objects as dictionaries); null is refused.
    static QVariant toValue(const QJsonValue &value);

    static QString formatDate(const QDateTime &date);
    /// Parses ISO 8601 with or without milliseconds; throws on anything else.
    static QDateTime parseDate(const QString &text);
};
