// Both include styles an installed package offers.
#include <Murmora/core/QKFeedback.h>
#include <Murmora/core/WendaxMurmora.h>
#include "base/QKDocumentsDirectory.h"
#include "data/QKLocalFeedbackSource.h"

#include <QApplication>
#include <QDir>
#include <QTemporaryDir>
#include <QTextStream>

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

    QKLocalFeedbackSource reread;
    QString text;
    reread.feedbackItems([&](std::optional<QKFeedbackItemList> items, std::optional<QKError>) {
        if (items && items->size() == 1)
            text = items->first()->text();
    });
    out << "item: " << text << Qt::endl;
    out << "version: " << WendaxMurmora::versionString() << Qt::endl;
    out << "shared instance: " << (QKFeedback::sharedInstance() ? "yes" : "no") << Qt::endl;
    return text == QStringLiteral("hello from the consumer") && QKFeedback::sharedInstance() ? 0 : 1;
}
