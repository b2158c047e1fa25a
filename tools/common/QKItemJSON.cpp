#include "QKItemJSON.h"

#include "base/QKPNGCodec.h"

#include <QCryptographicHash>
#include <QFile>
#include <QImageReader>

#include <cmath>
#include <stdexcept>

namespace {

QJsonValue stringOrNull(const QString &text)
{
    return text.isNull() ? QJsonValue(QJsonValue::Null) : QJsonValue(text);
}

[[noreturn]] void invalid(const QString &what)
{
    throw std::runtime_error(what.toStdString());
}

QString optionalString(const QJsonObject &object, const QString &key)
{
    const QJsonValue value = object.value(key);
    if (value.isUndefined() || value.isNull())
        return QString();
    if (!value.isString())
        invalid(QStringLiteral("\"%1\" must be a string or null").arg(key));
    return value.toString();
}

QDateTime optionalDate(const QJsonObject &object, const QString &key)
{
    const QString text = optionalString(object, key);
    return text.isNull() ? QDateTime() : QKItemJSON::parseDate(text);
}

} // namespace

QString QKItemJSON::formatDate(const QDateTime &date)
{
    return date.toUTC().toString(Qt::ISODateWithMs);
}

QDateTime QKItemJSON::parseDate(const QString &text)
{
    QDateTime date = QDateTime::fromString(text, Qt::ISODateWithMs);
    if (!date.isValid())
        invalid(QStringLiteral("\"%1\" is not an ISO 8601 date").arg(text));
    return date.toUTC();
}

QJsonObject QKItemJSON::fromItem(const QKFeedbackItem &item)
{
    QJsonObject object;
    object.insert(QStringLiteral("key"), stringOrNull(item.key()));
    object.insert(QStringLiteral("createdAt"),
                  item.createdAt().isValid() ? QJsonValue(formatDate(item.createdAt())) : QJsonValue());
    object.insert(QStringLiteral("modifiedAt"),
                  item.modifiedAt().isValid() ? QJsonValue(formatDate(item.modifiedAt())) : QJsonValue());
    object.insert(QStringLiteral("text"), stringOrNull(item.text()));
    object.insert(QStringLiteral("author"), stringOrNull(item.author()));
    object.insert(QStringLiteral("state"), stringOrNull(item.state()));
    const QImage image = item.image();
    if (image.isNull()) {
        object.insert(QStringLiteral("image"), QJsonValue());
    } else {
        const QByteArray png = item.imagePNG();
        object.insert(
            QStringLiteral("image"),
            QJsonObject{{QStringLiteral("width"), image.width()},
                        {QStringLiteral("height"), image.height()},
                        {QStringLiteral("sha256"),
                         QString::fromLatin1(QCryptographicHash::hash(png, QCryptographicHash::Sha256).toHex())}});
    }
    if (!item.params().isEmpty())
        object.insert(QStringLiteral("params"), fromValue(item.params()));
    object.insert(QStringLiteral("subItems"), item.subItems() ? QJsonValue(fromItems(*item.subItems())) : QJsonValue());
    return object;
}

QJsonArray QKItemJSON::fromItems(const QKFeedbackItemList &items)
{
    QJsonArray array;
    for (const QKFeedbackItemPtr &item : items)
        array.append(fromItem(*item));
    return array;
}

QJsonValue QKItemJSON::fromValue(const QVariant &value)
{
    if (!value.isValid())
        return QJsonValue();
    if (auto item = value.value<QKCodingPtr>().dynamicCast<QKFeedbackItem>())
        return fromItem(*item);
    switch (value.metaType().id()) {
    case QMetaType::QDateTime:
        return formatDate(value.toDateTime());
    case QMetaType::QByteArray:
        return QString::fromLatin1(value.toByteArray().toBase64());
    case QMetaType::QVariantList: {
        QJsonArray array;
        for (const QVariant &each : value.toList())
            array.append(fromValue(each));
        return array;
    }
    case QMetaType::QVariantMap: {
        QJsonObject object;
        const QVariantMap map = value.toMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            object.insert(it.key(), fromValue(it.value()));
        return object;
    }
    default:
        return QJsonValue::fromVariant(value);
    }
}

QKFeedbackItemPtr QKItemJSON::toItem(const QJsonObject &object)
{
    auto item = QKFeedbackItem::create();
    item->setKey(optionalString(object, QStringLiteral("key")));
    item->setCreatedAt(optionalDate(object, QStringLiteral("createdAt")));
    item->setModifiedAt(optionalDate(object, QStringLiteral("modifiedAt")));
    item->setText(optionalString(object, QStringLiteral("text")));
    item->setAuthor(optionalString(object, QStringLiteral("author")));
    item->setState(optionalString(object, QStringLiteral("state")));
    const QString imageFile = optionalString(object, QStringLiteral("imageFile"));
    if (!imageFile.isNull()) {
        QImageReader reader(imageFile);
        const QImage image = reader.read();
        if (image.isNull())
            invalid(QStringLiteral("cannot read image %1: %2").arg(imageFile, reader.errorString()));
        item->setImage(image);
    }
    const QJsonValue params = object.value(QStringLiteral("params"));
    if (params.isObject())
        item->setParams(params.toObject().toVariantMap());
    const QJsonValue subItems = object.value(QStringLiteral("subItems"));
    if (subItems.isNull()) {
        item->subItems().reset();
    } else if (!subItems.isUndefined()) {
        if (!subItems.isArray())
            invalid(QStringLiteral("\"subItems\" must be an array or null"));
        for (const QJsonValue &each : subItems.toArray()) {
            if (!each.isObject())
                invalid(QStringLiteral("every sub-item must be an object"));
            item->addSubItem(toItem(each.toObject()));
        }
    }
    return item;
}

QVariant QKItemJSON::toValue(const QJsonValue &value)
{
    switch (value.type()) {
    case QJsonValue::Bool:
        return value.toBool();
    case QJsonValue::Double: {
        const double number = value.toDouble();
        // Whole numbers within 2^53 stay integers; beyond that a double is as exact.
        if (std::fabs(number) <= 9007199254740992.0 && number == std::trunc(number))
            return qint64(number);
        return number;
    }
    case QJsonValue::String:
        return value.toString();
    case QJsonValue::Array: {
        QVariantList list;
        for (const QJsonValue &each : value.toArray())
            list.append(toValue(each));
        return list;
    }
    case QJsonValue::Object: {
        QVariantMap map;
        const QJsonObject object = value.toObject();
        for (auto it = object.begin(); it != object.end(); ++it)
            map.insert(it.key(), toValue(it.value()));
        return map;
    }
    default:
        invalid(QStringLiteral("null cannot be stored in a dictionary"));
    }
}
