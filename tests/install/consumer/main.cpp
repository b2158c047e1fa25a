// A host that includes only the stable headers, through their forwarding names.
#include <Murmora/QKDocumentsDirectory>
#include <Murmora/QKFeedback>
#include <Murmora/QKLocalFeedbackSource>
#include <Murmora/WendaxMurmora>

#include <QAction>
#include <QApplication>
#include <QMainWindow>
#include <QMenuBar>
#include <QDir>
#include <QTemporaryDir>
#include <QTextStream>
#include <QTimer>

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    QTextStream out(stdout);

    // The documents folder comes from the command line, else a temporary one.
    QTemporaryDir scratch;
    const QString documents = argc > 1 ? QString::fromLocal8Bit(argv[1]) : scratch.path();
    if (documents.isEmpty() || !QDir().mkpath(documents))
        return 2;
    QKSetDocumentsDirectory(documents);

    {
        QKLocalFeedbackSource source;
        auto item = QKFeedbackItem::create();
        item->setKey(QStringLiteral("consumer-1"));
        item->setText(QStringLiteral("hello from the consumer"));
        bool added = false;
        source.addFeedback(item, [&](std::optional<QKError> error) { added = !error; });
        if (!added || !source.save())
            return 3;
    }

    // Read back through the form that completes on a context's thread, from its event loop.
    QKLocalFeedbackSource reread;
    QString text;
    reread.feedbackItemsByState(QString(), 0, &app,
                                [&](std::optional<QKFeedbackItemList> items, std::optional<QKError>) {
                                    if (items && items->size() == 1)
                                        text = items->first()->text();
                                    app.quit();
                                });
    QTimer::singleShot(10000, &app, &QCoreApplication::quit);
    app.exec();
    // The README's three lines, on a QMainWindow.
    QMainWindow mainWindow;
    mainWindow.resize(400, 700);
    mainWindow.show();
    QKFeedback::setDataSource(QKLocalFeedbackSource::sharedItems());
    QAction *feedback = mainWindow.menuBar()->addAction(QObject::tr("Send feedback…"));
    QObject::connect(feedback, &QAction::triggered, [] { QKFeedback::showFeedback(); });
    feedback->trigger();
    const bool shown = QKFeedback::feedbackIsShown();

    out << "item: " << text << Qt::endl;
    out << "menu: " << (shown ? "shown" : "not shown") << Qt::endl;
    out << "version: " << WendaxMurmora::versionString() << Qt::endl;
    out << "shared instance: " << (QKFeedback::sharedInstance() ? "yes" : "no") << Qt::endl;
    return text == QStringLiteral("hello from the consumer") && shown ? 0 : 1;
}
