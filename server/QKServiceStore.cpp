#include "QKServiceStore.h"
#include "QKPostgresStore.h"
#include "QKSqliteStore.h"

#include <QDir>
#include <QRandomGenerator>

QKServiceStore::~QKServiceStore() = default;

int QKServiceStore::schemaVersion()
{
    return 2;
}

QString QKServiceStore::newIdentifier()
{
    // Never with a leading '-', which command lines would take for an option.
    for (;;) {
        quint32 words[4];
        QRandomGenerator::system()->fillRange(words);
        const QByteArray bytes(reinterpret_cast<const char *>(words), sizeof words);
        const QByteArray text = bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals);
        if (!text.startsWith('-'))
            return QString::fromLatin1(text);
    }
}

QString QKServiceStore::newerSchemaMessage(int found)
{
    return QStringLiteral("The database was written by a newer murmora-server (schema version %1; this one knows "
                          "versions up to %2). Run that newer murmora-server, or restore a backup made with this one.")
        .arg(found)
        .arg(schemaVersion());
}

std::unique_ptr<QKServiceStore> QKServiceStore::open(const QString &databaseUrl, const QString &dataDirectory)
{
    if (databaseUrl.startsWith(QLatin1String("postgresql://")) || databaseUrl.startsWith(QLatin1String("postgres://")))
        return std::make_unique<QKPostgresStore>(databaseUrl);
    if (!databaseUrl.isEmpty())
        throw QKServiceStoreError("--database takes a postgresql:// URL; without it the service keeps its data in "
                                  "SQLite in the data directory.");
    if (dataDirectory.isEmpty())
        throw QKServiceStoreError("The data directory is missing (--data DIR).");
    if (!QDir().mkpath(dataDirectory))
        throw QKServiceStoreError(
            QStringLiteral("The data directory %1 cannot be created.").arg(dataDirectory).toStdString());
    return std::make_unique<QKSqliteStore>(QDir(dataDirectory).filePath(QStringLiteral("murmora.db")));
}
