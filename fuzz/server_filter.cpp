// The service's filter and sort headers, as a device sends them ("x-filter-meta",
// "x-sort-meta"): whatever parses compiles to SQL whose text holds no value at all.

#include "FuzzSupport.h"

#include "QKFilterQuery.h"

#include <QRegularExpression>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    FuzzSupport::startQt();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArrayView text(reinterpret_cast<const char *>(data), qsizetype(size));
    // Only column names, keywords, operators and placeholders: never a value.
    static const QRegularExpression tokens(
        QStringLiteral("\\b(id|root_id|uid|text|author|state|created_at|modified_at|IS|NOT|NULL|AND|OR|IN|ASC|DESC)\\b"
                       "|\\$[0-9]+|\\?|1=1|1=0|[()=<>, ]"));
    const auto onlyTokens = [](QString sql) { return sql.remove(tokens).isEmpty(); };
    QString error;
    if (const auto filter = QKFilterQuery::parse(text, &error)) {
        for (const auto dialect : {QKFilterQuery::Dialect::SQLite, QKFilterQuery::Dialect::PostgreSQL}) {
            QVariantList parameters{qint64(1)};
            const QString sql = filter->toSql(dialect, parameters);
            FUZZ_CHECK(onlyTokens(sql));
            const qsizetype holders =
                dialect == QKFilterQuery::Dialect::SQLite ? sql.count(QLatin1Char('?')) : sql.count(QLatin1Char('$'));
            FUZZ_CHECK(holders == parameters.size() - 1);
        }
    } else {
        FUZZ_CHECK(!error.isEmpty());
    }
    if (const auto sort = QKFilterQuery::parseSort(text, &error)) {
        FUZZ_CHECK(sort->size() == 1);
        FUZZ_CHECK(onlyTokens(QKFilterQuery::orderBy(*sort)));
    }
    return 0;
}
