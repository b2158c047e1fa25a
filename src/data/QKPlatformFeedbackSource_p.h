#pragma once

#include "QKFeedbackItem.h"

#include "../base/QKError.h"

#include <QByteArray>
#include <QJsonObject>
#include <QJsonValue>

#include <optional>

// How QKPlatformFeedbackSource reads the service's answers, apart from the network so
// that the fuzz targets can reach it.
namespace QKPlatformAnswer {
// The body as a JSON array or object; undefined for anything else.
MURMORA_DATA_EXPORT QJsonValue parseJSON(const QByteArray &body);
// The service's error answer in `value`, if it is one. JSON null counts as absent.
MURMORA_DATA_EXPORT std::optional<QKError> errorAnswer(const QJsonValue &value, const char *fixedMessage);
// The fields a thread object gives every record: dates, key, text, author.
MURMORA_DATA_EXPORT void readThread(QKFeedbackItem &item, const QJsonObject &thread);
// The thread objects of a listing (with state and params) or of a comments answer.
MURMORA_DATA_EXPORT QKFeedbackItemList readThreads(const QJsonValue &answer, bool listing);
} // namespace QKPlatformAnswer
