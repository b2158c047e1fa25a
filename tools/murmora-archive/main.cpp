// murmora-archive: prints an items or settings archive as JSON, and writes one from JSON.

#include "QKItemJSON.h"
#include "base/QKException.h"
#include "base/QKKeyedArchiver.h"
#include "base/QKKeyedUnarchiver.h"

#include <QFile>
#include <QCoreApplication>
#include <QJsonDocument>
#include <QTextStream>

#include <cstdio>
#include <stdexcept>

namespace {

int usage()
{
    std::fputs("usage: murmora-archive dump FILE\n"
               "       murmora-archive make FILE < JSON\n"
               "dump prints an items archive (or a settings archive) as JSON;\n"
               "make writes one from that JSON form (an array of items, or an object of settings).\n",
               stderr);
    return 2;
}

int fail(const QString &message)
{
    std::fprintf(stderr, "murmora-archive: %s\n", message.toLocal8Bit().constData());
    return 1;
}

int dump(const QString &path)
{
    if (!QFile::exists(path))
        return fail(QStringLiteral("%1: no such file").arg(path));
    const QVariant root = QKKeyedUnarchiver::unarchiveObjectWithFile(path);
    const QJsonValue json = QKItemJSON::fromValue(root);
    QJsonDocument document;
    if (json.isArray())
        document.setArray(json.toArray());
    else if (json.isObject())
        document.setObject(json.toObject());
    else
        return fail(QStringLiteral("%1: the root is neither a list nor a dictionary").arg(path));
    QFile out;
    if (!out.open(stdout, QIODevice::WriteOnly))
        return fail(QStringLiteral("cannot write to standard output"));
    out.write(document.toJson(QJsonDocument::Indented));
    return 0;
}

int make(const QString &path)
{
    QFile in;
    if (!in.open(stdin, QIODevice::ReadOnly))
        return fail(QStringLiteral("cannot read standard input"));
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(in.readAll(), &error);
    if (document.isNull())
        return fail(
            QStringLiteral("standard input is not JSON: %1 at offset %2").arg(error.errorString()).arg(error.offset));
    QVariant root;
    if (document.isArray()) {
        QVariantList items;
        for (const QJsonValue &each : document.array()) {
            if (!each.isObject())
                return fail(QStringLiteral("every item must be a JSON object"));
            items.append(QVariant::fromValue(QKItemJSON::toItem(each.toObject()).staticCast<QKCoding>()));
        }
        root = items;
    } else {
        root = QKItemJSON::toValue(document.object());
    }
    QString message;
    if (!QKKeyedArchiver::archiveRootObject(root, path, &message))
        return fail(QStringLiteral("%1: %2").arg(path, message));
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    // QImage reads and writes files without a display or a GUI application.
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() != 3)
        return usage();
    try {
        if (args[1] == QLatin1String("dump"))
            return dump(args[2]);
        if (args[1] == QLatin1String("make"))
            return make(args[2]);
    } catch (const QKException &e) {
        return fail(QStringLiteral("%1: %2").arg(args[2], e.reason()));
    } catch (const std::exception &e) {
        return fail(QStringLiteral("%1: %2").arg(args[2], QString::fromLocal8Bit(e.what())));
    }
    return usage();
}
