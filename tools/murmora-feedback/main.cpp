// murmora-feedback: the hosted feedback service from a terminal, through the library's own source.

#include "QKItemJSON.h"
#include "base/QKDispatch.h"
#include "base/QKException.h"
#include "data/QKPlatformFeedbackSource.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QImageReader>
#include <QJsonDocument>
#include <QSslCertificate>

#include <cstdio>

namespace {

const char *const Usage = R"(usage: murmora-feedback --service URL --key KEY --uid UID [--ca FILE] COMMAND
commands:
  list [--state S] [--skip N]          the device's feedback, newest first
  send --text T [--image PNG] [--author NAME]
  edit KEY STATE
  delete KEY
  comments KEY                         the comments of an item, newest first
  comment KEY TEXT [--author NAME]
  image URI OUT.png                    download a screenshot
Results are printed as JSON; errors as domain, code and message on standard error.
)";

void print(const QJsonValue &value)
{
    const QJsonDocument document = value.isArray() ? QJsonDocument(value.toArray()) : QJsonDocument(value.toObject());
    std::fputs(document.toJson(QJsonDocument::Indented).constData(), stdout);
}

int usage(const QString &problem)
{
    std::fprintf(stderr, "murmora-feedback: %s\n%s", problem.toLocal8Bit().constData(), Usage);
    return 2;
}

// Completions arrive on the network thread; the answer is printed on the main thread.
void finish(std::function<int()> report)
{
    QKDispatch::async(QKDispatch::mainQueue(), [report] { QCoreApplication::exit(report()); });
}

int reportError(const QKError &error)
{
    std::fprintf(stderr, "murmora-feedback: %s (%lld): %s\n", error.domain().toLocal8Bit().constData(),
                 static_cast<long long>(error.code()), error.message().toLocal8Bit().constData());
    return 1;
}

void finishWithItems(std::optional<QKFeedbackItemList> items, std::optional<QKError> error)
{
    finish([items, error] {
        if (error)
            return reportError(*error);
        print(QKItemJSON::fromItems(items.value_or(QKFeedbackItemList())));
        return 0;
    });
}

void finishWithError(std::optional<QKError> error)
{
    finish([error] {
        if (error)
            return reportError(*error);
        print(QJsonObject{{QStringLiteral("ok"), true}});
        return 0;
    });
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    const QCommandLineOption service(QStringLiteral("service"), QString(), QStringLiteral("URL"));
    const QCommandLineOption key(QStringLiteral("key"), QString(), QStringLiteral("KEY"));
    const QCommandLineOption uid(QStringLiteral("uid"), QString(), QStringLiteral("UID"));
    const QCommandLineOption ca(QStringLiteral("ca"), QString(), QStringLiteral("FILE"));
    const QCommandLineOption state(QStringLiteral("state"), QString(), QStringLiteral("S"));
    const QCommandLineOption skip(QStringLiteral("skip"), QString(), QStringLiteral("N"), QStringLiteral("0"));
    const QCommandLineOption text(QStringLiteral("text"), QString(), QStringLiteral("T"));
    const QCommandLineOption image(QStringLiteral("image"), QString(), QStringLiteral("PNG"));
    const QCommandLineOption author(QStringLiteral("author"), QString(), QStringLiteral("NAME"));
    parser.addOptions({service, key, uid, ca, state, skip, text, image, author});
    if (!parser.parse(app.arguments()))
        return usage(parser.errorText());
    const QStringList args = parser.positionalArguments();
    if (args.isEmpty() || !parser.isSet(service) || !parser.isSet(key) || !parser.isSet(uid))
        return usage(QStringLiteral("--service, --key, --uid and a command are needed"));

    auto session = QSharedPointer<QKURLSession>::create();
    if (parser.isSet(ca)) {
        const auto certificates = QSslCertificate::fromPath(parser.value(ca));
        if (certificates.isEmpty())
            return usage(QStringLiteral("no certificate in %1").arg(parser.value(ca)));
        session->addCaCertificates(certificates);
    }
    QKPlatformFeedbackSource source(parser.value(key), parser.value(uid), parser.value(service), QVariantMap());
    source.setSession(session);
    if (parser.isSet(author))
        source.setUserName(parser.value(author));

    const QString command = args[0];
    const auto expect = [&](qsizetype count) { return args.size() == count; };
    try {
        if (command == QLatin1String("list") && expect(1)) {
            bool ok = false;
            const qint64 skipCount = parser.value(skip).toLongLong(&ok);
            if (!ok)
                return usage(QStringLiteral("--skip takes a number"));
            source.feedbackItemsByState(parser.isSet(state) ? parser.value(state) : QString(), skipCount,
                                        finishWithItems);
        } else if (command == QLatin1String("send") && expect(1) && parser.isSet(text)) {
            auto item = QKFeedbackItem::create();
            item->setText(parser.value(text));
            item->setCreatedAt(QDateTime::currentDateTimeUtc());
            if (parser.isSet(image)) {
                QImageReader reader(parser.value(image));
                const QImage picture = reader.read();
                if (picture.isNull())
                    return usage(QStringLiteral("cannot read %1: %2").arg(parser.value(image), reader.errorString()));
                item->setImage(picture);
            }
            source.addFeedback(item, finishWithError);
        } else if (command == QLatin1String("edit") && expect(3)) {
            source.editWithKey(args[1], args[2], finishWithError);
        } else if (command == QLatin1String("delete") && expect(2)) {
            source.deleteWithKey(args[1], finishWithError);
        } else if (command == QLatin1String("comments") && expect(2)) {
            source.subItemsForKey(args[1], finishWithItems);
        } else if (command == QLatin1String("comment") && expect(3)) {
            auto comment = QKFeedbackItem::create();
            comment->setText(args[2]);
            source.addSubItemForKey(args[1], comment, [comment](std::optional<QKError> error) {
                finish([comment, error] {
                    if (error)
                        return reportError(*error);
                    print(QKItemJSON::fromItem(*comment));
                    return 0;
                });
            });
        } else if (command == QLatin1String("image") && expect(3)) {
            const QString out = args[2];
            source.imageForKey(args[1], [out](QImage picture, std::optional<QKError> error) {
                finish([picture, error, out] {
                    if (error)
                        return reportError(*error);
                    if (picture.isNull())
                        return reportError(QKError::withMessage(QStringLiteral("murmora-feedback"), 0,
                                                                QStringLiteral("the answer is not an image")));
                    if (!picture.save(out, "PNG"))
                        return reportError(QKError::withMessage(QStringLiteral("murmora-feedback"), 0,
                                                                QStringLiteral("cannot write %1").arg(out)));
                    print(QJsonObject{{QStringLiteral("width"), picture.width()},
                                      {QStringLiteral("height"), picture.height()},
                                      {QStringLiteral("file"), out}});
                    return 0;
                });
            });
        } else {
            return usage(QStringLiteral("unknown command or wrong arguments: %1").arg(args.join(QLatin1Char(' '))));
        }
    } catch (const QKException &e) {
        std::fprintf(stderr, "murmora-feedback: %s\n", e.reason().toLocal8Bit().constData());
        return 1;
    }
    return app.exec();
}
