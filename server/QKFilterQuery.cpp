#include "QKFilterQuery.h"
#include "QKJsonReader.h"

#include "base/QKServiceDate.h"

#include <QJsonArray>
#include <QJsonObject>

namespace {

struct Field
{
    QString name;
    QString column;
    bool isDate;
};

const QList<Field> &fieldTable()
{
    static const QList<Field> table{
        {QStringLiteral("Id"), QStringLiteral("id"), false},
        {QStringLiteral("RootId"), QStringLiteral("root_id"), false},
        {QStringLiteral("Uid"), QStringLiteral("uid"), false},
        {QStringLiteral("Text"), QStringLiteral("text"), false},
        {QStringLiteral("Author"), QStringLiteral("author"), false},
        {QStringLiteral("State"), QStringLiteral("state"), false},
        {QStringLiteral("CreatedAt"), QStringLiteral("created_at"), true},
        {QStringLiteral("ModifiedAt"), QStringLiteral("modified_at"), true},
    };
    return table;
}

const Field *findField(const QString &name)
{
    for (const Field &f : fieldTable())
        if (f.name == name)
            return &f;
    return nullptr;
}

class FilterParser
{
public:
    QString error;

    bool parseCondition(const QJsonObject &object, int depth, QKFilterNode *out)
    {
        if (depth > QKFilterQuery::MaxDepth)
            return fail(QStringLiteral("the filter is nested too deeply"));
        QKFilterNode all;
        all.kind = QKFilterNode::Kind::And;
        for (auto it = object.begin(); it != object.end(); ++it) {
            QKFilterNode node;
            if (!parseEntry(it.key(), it.value(), depth, &node))
                return false;
            all.children.append(std::move(node));
        }
        if (all.children.size() == 1)
            *out = std::move(all.children.first());
        else
            *out = std::move(all);
        return true;
    }

private:
    int nodes = 0;

    bool fail(const QString &what)
    {
        if (error.isEmpty())
            error = what;
        return false;
    }

    bool count()
    {
        if (++nodes > QKFilterQuery::MaxNodes)
            return fail(QStringLiteral("the filter has too many conditions"));
        return true;
    }

    bool parseEntry(const QString &key, const QJsonValue &value, int depth, QKFilterNode *node)
    {
        if (!count())
            return false;
        if (key == QLatin1String("$and") || key == QLatin1String("$or")) {
            node->kind = key == QLatin1String("$and") ? QKFilterNode::Kind::And : QKFilterNode::Kind::Or;
            if (!value.isArray() || value.toArray().isEmpty())
                return fail(QStringLiteral("%1 takes a list of conditions").arg(key));
            const QJsonArray list = value.toArray();
            if (list.size() > QKFilterQuery::MaxListLength)
                return fail(QStringLiteral("%1 has too many conditions").arg(key));
            for (const QJsonValue &element : list) {
                if (!element.isObject())
                    return fail(QStringLiteral("%1 takes a list of conditions").arg(key));
                QKFilterNode child;
                if (!parseCondition(element.toObject(), depth + 1, &child))
                    return false;
                node->children.append(std::move(child));
            }
            return true;
        }
        if (key.startsWith(QLatin1Char('$')))
            return fail(QStringLiteral("unknown operator %1").arg(key.left(32)));
        if (!findField(key))
            return fail(QStringLiteral("unknown field %1").arg(key.left(32)));
        node->field = key;
        if (!value.isObject()) {
            node->kind = QKFilterNode::Kind::Equal;
            return addValue(value, node);
        }
        const QJsonObject op = value.toObject();
        if (op.size() != 1)
            return fail(QStringLiteral("a comparison takes one operator"));
        const QString name = op.begin().key();
        const QJsonValue operand = op.begin().value();
        if (name == QLatin1String("$eq") || name == QLatin1String("$ne")) {
            node->kind = name == QLatin1String("$eq") ? QKFilterNode::Kind::Equal : QKFilterNode::Kind::NotEqual;
            return addValue(operand, node);
        }
        if (name == QLatin1String("$in")) {
            node->kind = QKFilterNode::Kind::In;
            if (!operand.isArray())
                return fail(QStringLiteral("$in takes a list of values"));
            const QJsonArray list = operand.toArray();
            if (list.size() > QKFilterQuery::MaxListLength)
                return fail(QStringLiteral("$in has too many values"));
            for (const QJsonValue &v : list)
                if (!addValue(v, node))
                    return false;
            return true;
        }
        return fail(QStringLiteral("unknown operator %1").arg(name.left(32)));
    }

    bool addValue(const QJsonValue &value, QKFilterNode *node)
    {
        switch (value.type()) {
        case QJsonValue::String:
            if (value.toString().size() > QKFilterQuery::MaxStringLength)
                return fail(QStringLiteral("a filter value is too long"));
            // No stored text can hold NUL (PostgreSQL refuses it outright).
            if (value.toString().contains(QChar(0)))
                return fail(QStringLiteral("a filter value holds a NUL character"));
            node->values.append(value.toString());
            return true;
        case QJsonValue::Double:
            node->values.append(value.toDouble());
            return true;
        case QJsonValue::Null:
            node->values.append(QVariant());
            return true;
        default:
            return fail(QStringLiteral("a filter value must be a string, a number or null"));
        }
    }
};

// The value as the column holds it, or an invalid QVariant when no row can hold it.
QVariant columnValue(const Field &field, const QVariant &value)
{
    if (field.isDate) {
        if (value.typeId() != QMetaType::QString)
            return {};
        const QDateTime date = QKServiceDate::parse(value.toString());
        return date.isValid() ? QVariant(date.toMSecsSinceEpoch()) : QVariant();
    }
    return value.typeId() == QMetaType::QString ? value : QVariant();
}

QString placeholder(QKFilterQuery::Dialect dialect, QVariantList &parameters, const QVariant &value)
{
    parameters.append(value);
    if (dialect == QKFilterQuery::Dialect::PostgreSQL)
        return QStringLiteral("$%1").arg(parameters.size());
    return QStringLiteral("?");
}

QString compile(const QKFilterNode &node, QKFilterQuery::Dialect dialect, QVariantList &parameters)
{
    using Kind = QKFilterNode::Kind;
    if (node.kind == Kind::And || node.kind == Kind::Or) {
        if (node.children.isEmpty())
            return node.kind == Kind::And ? QStringLiteral("1=1") : QStringLiteral("1=0");
        QStringList parts;
        for (const QKFilterNode &child : node.children)
            parts.append(compile(child, dialect, parameters));
        return QLatin1Char('(') + parts.join(node.kind == Kind::And ? QLatin1String(" AND ") : QLatin1String(" OR ")) +
               QLatin1Char(')');
    }
    const Field &field = *findField(node.field);
    const QString &column = field.column;
    if (node.kind == Kind::In) {
        QStringList holders;
        bool withNull = false;
        for (const QVariant &v : node.values) {
            if (!v.isValid()) {
                withNull = true;
                continue;
            }
            const QVariant c = columnValue(field, v);
            if (c.isValid())
                holders.append(placeholder(dialect, parameters, c));
        }
        QStringList alternatives;
        if (!holders.isEmpty())
            alternatives.append(column + QLatin1String(" IN (") + holders.join(QLatin1Char(',')) + QLatin1Char(')'));
        if (withNull)
            alternatives.append(column + QLatin1String(" IS NULL"));
        if (alternatives.isEmpty())
            return QStringLiteral("1=0");
        return QLatin1Char('(') + alternatives.join(QLatin1String(" OR ")) + QLatin1Char(')');
    }
    const QVariant &v = node.values.first();
    const bool equal = node.kind == Kind::Equal;
    if (!v.isValid())
        return column + (equal ? QLatin1String(" IS NULL") : QLatin1String(" IS NOT NULL"));
    const QVariant c = columnValue(field, v);
    if (!c.isValid())
        return equal ? QStringLiteral("1=0") : QStringLiteral("1=1");
    const QString slot = placeholder(dialect, parameters, c);
    if (equal)
        return column + QLatin1String(" = ") + slot;
    return QLatin1Char('(') + column + QLatin1String(" IS NULL OR ") + column + QLatin1String(" <> ") + slot +
           QLatin1Char(')');
}

} // namespace

const QStringList &QKFilterQuery::fields()
{
    static const QStringList names = [] {
        QStringList list;
        for (const Field &f : fieldTable())
            list.append(f.name);
        return list;
    }();
    return names;
}

QString QKFilterQuery::column(const QString &field)
{
    const Field *f = findField(field);
    return f ? f->column : QString();
}

std::optional<QKFilterQuery> QKFilterQuery::parse(QByteArrayView json, QString *error)
{
    QString readError;
    const auto value = QKJsonReader::read(json, 2 * MaxDepth + 4, &readError);
    if (!value || !value->isObject()) {
        if (error)
            *error = value ? QStringLiteral("the filter must be a JSON object")
                           : QStringLiteral("the filter is not JSON: ") + readError;
        return std::nullopt;
    }
    FilterParser parser;
    QKFilterQuery query;
    if (!parser.parseCondition(value->toObject(), 0, &query.m_root)) {
        if (error)
            *error = parser.error;
        return std::nullopt;
    }
    return query;
}

std::optional<QList<QKSortKey>> QKFilterQuery::parseSort(QByteArrayView json, QString *error)
{
    const auto value = QKJsonReader::read(json, 2);
    const auto refuse = [error](const QString &what) -> std::optional<QList<QKSortKey>> {
        if (error)
            *error = what;
        return std::nullopt;
    };
    if (!value || !value->isObject())
        return refuse(QStringLiteral("the sort order must be a JSON object"));
    const QJsonObject object = value->toObject();
    // JSON objects keep no order, so one field decides (ties go by id).
    if (object.size() != 1)
        return refuse(QStringLiteral("the sort order names one field"));
    const QString field = object.begin().key();
    const QJsonValue direction = object.begin().value();
    if (!findField(field))
        return refuse(QStringLiteral("unknown field %1").arg(field.left(32)));
    if (!direction.isDouble() || (direction.toDouble() != 1 && direction.toDouble() != -1))
        return refuse(QStringLiteral("a sort direction is 1 or -1"));
    return QList<QKSortKey>{{field, direction.toDouble() == 1}};
}

std::optional<QString> QKFilterQuery::topLevelEquality(const QString &field) const
{
    const auto match = [&field](const QKFilterNode &node) {
        return node.kind == QKFilterNode::Kind::Equal && node.field == field &&
               node.values.first().typeId() == QMetaType::QString;
    };
    if (match(m_root))
        return m_root.values.first().toString();
    if (m_root.kind == QKFilterNode::Kind::And)
        for (const QKFilterNode &child : m_root.children)
            if (match(child))
                return child.values.first().toString();
    return std::nullopt;
}

bool QKFilterQuery::isOnlyEquality(const QString &field) const
{
    return m_root.kind == QKFilterNode::Kind::Equal && m_root.field == field &&
           m_root.values.first().typeId() == QMetaType::QString;
}

QString QKFilterQuery::toSql(Dialect dialect, QVariantList &parameters) const
{
    return compile(m_root, dialect, parameters);
}

QString QKFilterQuery::orderBy(const QList<QKSortKey> &sort)
{
    QStringList parts;
    bool ascending = false;
    for (const QKSortKey &key : sort) {
        parts.append(column(key.field) + (key.ascending ? QLatin1String(" ASC") : QLatin1String(" DESC")));
        ascending = key.ascending;
    }
    if (parts.isEmpty())
        parts.append(QStringLiteral("created_at DESC"));
    parts.append(ascending ? QStringLiteral("id ASC") : QStringLiteral("id DESC"));
    return parts.join(QLatin1String(", "));
}
