// The Murmora demo: a small notes app whose window's root is the library's host
// controller. With a display it opens the window; without one it runs a scripted
// tour at phone size and writes a picture of every step.

#include "DemoFeedbackSource.h"
#include "NotesViewController.h"
#include "Tour.h"

#include "base/QKDocumentsDirectory.h"
#include "core/QKFeedback.h"
#include "core/QKFeedbackController.h"
#include "data/QKPlatformFeedbackSource.h"
#include "kit/QKAnimation.h"
#include "kit/QKWindow.h"

#include <QApplication>
#include <QProcess>
#include <QCommandLineParser>
#include <QProcess>
#include <QSslCertificate>
#include <QStandardPaths>

#include <cstdio>

namespace {

bool headless()
{
    return qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

void printStored(const QKFeedbackDataSourcePtr &source)
{
    source->feedbackItems([](std::optional<QKFeedbackItemList> items, std::optional<QKError> error) {
        if (error || !items) {
            std::printf("No items could be listed.\n");
            return;
        }
        std::printf("Stored feedback (%lld items):\n", static_cast<long long>(items->size()));
        for (const auto &item : *items) {
            // A service lists screenshots by address; the local source has them at hand.
            const QString uri = item->params().value(QStringLiteral("ImageUri")).toString();
            if (!uri.isEmpty())
                std::printf("  [%s] \"%s\", screenshot at %s\n", qPrintable(item->state()), qPrintable(item->text()),
                            qPrintable(uri));
            else
                std::printf("  [%s] \"%s\", screenshot %dx%d pixels\n", qPrintable(item->state()),
                            qPrintable(item->text()), item->image().width(), item->image().height());
            for (const auto &comment : item->subItems().value_or(QKFeedbackItemList()))
                std::printf("      comment: \"%s\"\n", qPrintable(comment->text()));
        }
    });
}

} // namespace

int main(int argc, char **argv)
{
    bool tour = headless();
    for (int i = 1; i < argc; ++i)
        if (qstrcmp(argv[i], "--tour") == 0)
            tour = true;
    if (tour) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
        qputenv("QT_SCALE_FACTOR", "3");
    }
    QApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("Murmora Demo"));
    app.setOrganizationDomain(QStringLiteral("murmora.example"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("A notes app with Murmora feedback."));
    parser.addHelpOption();
    const QCommandLineOption tourOption(QStringLiteral("tour"), QStringLiteral("Run the scripted tour offscreen."));
    const QCommandLineOption tourDir(QStringLiteral("tour-dir"), QStringLiteral("Where the tour writes its pictures."),
                                     QStringLiteral("DIR"), QStringLiteral("murmora-tour"));
    const QCommandLineOption local(QStringLiteral("local"), QStringLiteral("Use the plain local source."));
    const QCommandLineOption service(QStringLiteral("service"), QStringLiteral("Hosted service base URL."),
                                     QStringLiteral("URL"));
    const QCommandLineOption key(QStringLiteral("key"), QStringLiteral("Application key."), QStringLiteral("KEY"));
    const QCommandLineOption uid(QStringLiteral("uid"), QStringLiteral("Device identifier."), QStringLiteral("UID"));
    const QCommandLineOption ca(QStringLiteral("ca"), QStringLiteral("Extra CA certificate (PEM)."),
                                QStringLiteral("FILE"));
    const QCommandLineOption answer(QStringLiteral("tour-answer"),
                                    QStringLiteral("A shell command the tour runs after its comment to answer the "
                                                   "feedback (the dashboard's tour); the tour then shows the answer."),
                                    QStringLiteral("COMMAND"));
    parser.addOptions({tourOption, tourDir, local, service, key, uid, ca, answer});
    parser.process(app);

    QDir pictures(parser.value(tourDir));
    if (tour) {
        // A tour starts from nothing: its own documents folder, emptied.
        pictures.mkpath(QStringLiteral("."));
        QDir(pictures.filePath(QStringLiteral("documents"))).removeRecursively();
        QKSetDocumentsDirectory(pictures.absoluteFilePath(QStringLiteral("documents")));
        QKAnimation::setAnimationsEnabled(false);
    }

    QKFeedbackDataSourcePtr source;
    if (parser.isSet(service)) {
        if (!parser.isSet(key) || !parser.isSet(uid)) {
            std::fprintf(stderr, "--service needs --key and --uid\n");
            return 2;
        }
        auto platform = QSharedPointer<QKPlatformFeedbackSource>::create(parser.value(key), parser.value(uid),
                                                                         parser.value(service), QVariantMap());
        if (parser.isSet(ca)) {
            auto session = QSharedPointer<QKURLSession>::create();
            session->addCaCertificates(QSslCertificate::fromPath(parser.value(ca)));
            platform->setSession(session);
        }
        source = platform;
    } else if (parser.isSet(local)) {
        source = QSharedPointer<QKLocalFeedbackSource>::create();
    } else {
        source = QSharedPointer<DemoFeedbackSource>::create();
    }

    QKWindow window(QSizeF(393, 852));
    window.setWindowTitle(QStringLiteral("Murmora Demo"));
    auto *notes = new NotesViewController;
    auto *root = new QKFeedbackController(notes);
    root->setContentController(notes);
    root->setDataSource(source);
    root->setShortcut(QKeySequence(QStringLiteral("Ctrl+Shift+F")));
    window.setRootViewController(root);
    window.makeKeyAndVisible();

    if (!tour)
        return app.exec();
    QApplication::setActiveWindow(&window);
    Tour script(&window, pictures);
    if (parser.isSet(answer))
        script.setAnswer([command = parser.value(answer)] {
            QProcess process;
            process.setProcessChannelMode(QProcess::ForwardedChannels);
            process.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), command});
            return process.waitForFinished(180000) && process.exitStatus() == QProcess::NormalExit &&
                   process.exitCode() == 0;
        });
    const bool done = script.run();
    printStored(source);
    return done ? 0 : 1;
}
