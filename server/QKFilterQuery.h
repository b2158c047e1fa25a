#pragma once

// The filter language of the threads collection ("x-filter-meta"), read strictly: a
// JSON object whose keys are "$and", "$or" or a field name, a field's value being a
// string, a number, null, {"$eq": v}, {"$ne": v} or {"$in": [v, …]}. Several keys in
// one object all have to hold. Only the fields of `fields()` may appear; depth, node
// count, list lengths and string lengths are bounded.
//
// The tree compiles to a parameterised SQL condition over the threads table: values go
// into the parameter list, never into the text.

#include <QByteArrayView>
#include <QList>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <optional>

struct QKFilterNode
{
    enum class Kind { And, Or, Equal, NotEqual, In };
    Kind kind = Kind::And;
    QString field;                // comparisons
    QVariantList values;          // comparisons: QString, double, or an invalid QVariant for null
    QList<QKFilterNode> children; // And, Or
};

struct QKSortKey
{
    QString field;
    bool ascending = false;
};

class QKFilterQuery
{
public:
    enum class Dialect { SQLite, PostgreSQL };

    static constexpr int MaxDepth = 6;
    static constexpr int MaxNodes = 64;
    static constexpr int MaxListLength = 100;
    static constexpr int MaxStringLength = 1024;

    // The fields a filter or a sort may name.
    static const QStringList &fields();
    // The column of a field, or an empty string.
    static QString column(const QString &field);

    // An empty filter (matches everything).
    QKFilterQuery() = default;
    // nullopt, with `error` set to what is wrong, for anything outside the language.
    static std::optional<QKFilterQuery> parse(QByteArrayView json, QString *error = nullptr);
    // "x-sort-meta": {"Field": 1 | -1, …}; nullopt for anything else.
    static std::optional<QList<QKSortKey>> parseSort(QByteArrayView json, QString *error = nullptr);

    const QKFilterNode &root() const { return m_root; }
    bool isEmpty() const { return m_root.kind == QKFilterNode::Kind::And && m_root.children.isEmpty(); }

    // The string value of a top-level equality on `field` (the root itself or one of the
    // conditions of a root "$and"): what the scope rules look for.
    std::optional<QString> topLevelEquality(const QString &field) const;
    // Whether the whole filter is exactly one equality on `field` with a string.
    bool isOnlyEquality(const QString &field) const;

    // The SQL condition; values are appended to `parameters`. PostgreSQL placeholders are
    // numbered after the parameters already there.
    QString toSql(Dialect dialect, QVariantList &parameters) const;
    static QString orderBy(const QList<QKSortKey> &sort);

private:
    QKFilterNode m_root;
};
