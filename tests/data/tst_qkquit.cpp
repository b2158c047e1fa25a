// A host that quits while requests are in flight: its process must end by itself, soon,
// and every completion must come once, cancelled. Each round is a child process of
// this executable that talks to a service that never answers and quits at a random
// moment.

#include "base/QKDispatch.h"
#include "base/QKURLSession.h"
#include "data/QKPlatformFeedbackSource.h"
#include "support/FakeService.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QRandomGenerator>
#include <QScopeGuard>
#include <QTimer>
#include <QtTest>

#include <functional>
#include <memory>

#include <cstdio>
#include <cstring>

namespace {

// One line per completion, written at once from whichever thread it runs on.
void report(const char *what, const std::optional<QKError> &error)
{
    const QByteArray line = QByteArray(what) + ' ' + QByteArray::number(error ? error->code : 0) + ' ' +
                            (error ? error->message().toUtf8() : QByteArray()) + '\n';
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fflush(stdout);
    // As a screen would: back to the main queue, which may be gone by now.
    QKDispatch::async(QKDispatch::mainQueue(), [] {});
}

int child(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QString mode = QString::fromLatin1(argv[2]);
    const QString baseUrl = QString::fromLatin1(argv[3]);
    const int quitAfter = QByteArray(argv[4]).toInt();
    QKURLSession::sharedSession()->addCaCertificates(FakeService::caCertificates());
    QKPlatformFeedbackSource source(QStringLiteral("APP"), QStringLiteral("device"), baseUrl, QVariantMap());
    if (mode == QLatin1String("batch")) {
        QKFeedbackItemList items;
        for (const char *text : {"one", "two", "three"}) {
            items.append(QKFeedbackItem::create());
            items.last()->setText(QString::fromLatin1(text));
        }
        source.addFeedbackItems(items, [](std::optional<QKError> error) { report("batch", error); });
    } else {
        source.feedbackItemsByState(QString(), 0, [](std::optional<QKFeedbackItemList>, std::optional<QKError> error) {
            report("list", error);
        });
        auto comment = QKFeedbackItem::create();
        comment->setText(QStringLiteral("a comment"));
        source.addSubItemForKey(QStringLiteral("T1"), comment,
                                [](std::optional<QKError> error) { report("comment", error); });
        source.imageForKey(baseUrl + QStringLiteral("/images/1"),
                           [](QImage, std::optional<QKError> error) { report("image", error); });
    }
    QTimer::singleShot(quitAfter, &app, [] {
        std::fputs("quit\n", stdout);
        std::fflush(stdout);
        QCoreApplication::quit();
    });
    return app.exec();
}

} // namespace

class TestQuit : public QObject
{
    Q_OBJECT

private slots:
    void quitWhileRequestsAreInFlight()
    {
        FakeService service;
        QVERIFY(service.listen());
        FakeService::Answer silent;
        silent.neverAnswer = true;
        service.answer(QByteArray(), QStringLiteral(".*"), silent);

        const int rounds = qEnvironmentVariableIntValue("MURMORA_QUIT_ROUNDS") > 0
                               ? qEnvironmentVariableIntValue("MURMORA_QUIT_ROUNDS")
                               : 100;
        const quint32 seed = qEnvironmentVariableIsSet("MURMORA_QUIT_SEED")
                                 ? quint32(qEnvironmentVariableIntValue("MURMORA_QUIT_SEED"))
                                 : QRandomGenerator::global()->generate();
        qInfo("%d rounds, seed %u (MURMORA_QUIT_SEED)", rounds, seed);
        QRandomGenerator random(seed);
        const QMap<QString, QStringList> expected{
            {QStringLiteral("batch"), {QStringLiteral("batch -999 Feedback could not be send")}},
            {QStringLiteral("reads"),
             {QStringLiteral("comment -999 Feedback comments could not be send"),
              QStringLiteral("image -999 Feedback screenshot could not be retrieved"),
              QStringLiteral("list -999 Feedback could not be retrieved")}}};

        // Four children at a time; each is checked as it ends, and the next one starts.
        int started = 0, ended = 0, slowest = 0;
        QStringList failures;
        // The children still running when the test ends (on a failure) go with it.
        const auto stopAll = qScopeGuard([this] {
            for (QProcess *process : findChildren<QProcess *>()) {
                process->disconnect(this);
                process->kill();
                process->waitForFinished();
                delete process;
            }
        });
        std::function<void()> launch = [&] {
            const QString mode = started % 2 ? QStringLiteral("reads") : QStringLiteral("batch");
            const int quitAfter = int(random.bounded(501));
            ++started;
            auto *process = new QProcess(this);
            auto sinceQuit = std::make_shared<QElapsedTimer>();
            const QString what = QStringLiteral("%1 round quitting after %2 ms").arg(mode).arg(quitAfter);
            connect(process, &QProcess::readyReadStandardOutput, process, [process, sinceQuit] {
                if (!sinceQuit->isValid() && process->peek(1 << 16).contains("quit\n")) {
                    sinceQuit->start();
                    // Still running 2 s after its quit: it hangs.
                    QTimer::singleShot(2000, process, [process] { process->kill(); });
                }
            });
            connect(process, &QProcess::finished, this, [&, process, sinceQuit, mode, what] {
                ++ended;
                QStringList lines =
                    QString::fromUtf8(process->readAllStandardOutput()).split(u'\n', Qt::SkipEmptyParts);
                const int quits = int(lines.removeAll(QStringLiteral("quit")));
                lines.sort();
                if (process->exitStatus() != QProcess::NormalExit || process->exitCode() != 0)
                    failures << what + QStringLiteral(" did not exit by itself within 2 s with status 0: ") +
                                    QString::fromLocal8Bit(process->readAllStandardError().right(2000));
                else if (quits != 1 || lines != expected.value(mode))
                    failures << what + QStringLiteral(" reported: ") + lines.join(QStringLiteral(" | "));
                else
                    slowest = qMax(slowest, int(sinceQuit->elapsed()));
                process->deleteLater();
                if (started < rounds)
                    launch();
            });
            process->start(QCoreApplication::applicationFilePath(),
                           {QStringLiteral("--child"), mode, service.baseUrl(), QString::number(quitAfter)});
        };
        for (int i = 0; i < 4 && started < rounds; ++i)
            launch();
        QTRY_VERIFY_WITH_TIMEOUT(ended == rounds || !failures.isEmpty(), rounds * 5000);
        QVERIFY2(failures.isEmpty(), qPrintable(failures.join(u'\n')));
        qInfo("%d rounds; the slowest exit took %d ms after its quit", rounds, slowest);
    }
};

int main(int argc, char **argv)
{
    if (argc == 5 && std::strcmp(argv[1], "--child") == 0)
        return child(argc, argv);
    QCoreApplication app(argc, argv);
    TestQuit test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_qkquit.moc"
