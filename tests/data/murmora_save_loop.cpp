// Saves one of the library's archives over and over, each time as a new version that
// a reader can recognise, so that a test can kill it at any moment and look at the file.
//
//   murmora_save_loop items|settings DIR [SAVES]
//
// items: ItemCount items whose text is "v<N>", one of them with a screenshot so that a
// save takes a while; settings: the façade's settings with the name "v<N>". It starts at
// the version found in DIR plus one, prints "running <found>" and "saved <N>" after each
// save that returned true, and stops after SAVES saves (none: until killed).

#include "base/QKDocumentsDirectory.h"
#include "core/QKFeedback.h"
#include "data/QKLocalFeedbackSource.h"

#include <QCoreApplication>
#include <QImage>
#include <QRandomGenerator>

#include <unistd.h>

namespace {

constexpr int ItemCount = 8;

// Unbuffered, so that what was printed before a SIGKILL is in the pipe.
void report(const char *what, qint64 version)
{
    const QByteArray line = QByteArray(what) + ' ' + QByteArray::number(version) + '\n';
    (void)!::write(STDOUT_FILENO, line.constData(), size_t(line.size()));
}

qint64 versionOf(const QString &text)
{
    return text.startsWith(QLatin1Char('v')) ? text.mid(1).toLongLong() : 0;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 3 || (args[1] != QLatin1String("items") && args[1] != QLatin1String("settings"))) {
        qWarning("usage: murmora_save_loop items|settings DIR [SAVES]");
        return 2;
    }
    QKSetDocumentsDirectory(args[2]);
    const qint64 saves = args.size() > 3 ? args[3].toLongLong() : -1;

    std::function<bool(qint64)> save;
    qint64 version = 0;
    std::unique_ptr<QKLocalFeedbackSource> source;
    if (args[1] == QLatin1String("items")) {
        source = std::make_unique<QKLocalFeedbackSource>(); // throws on a torn file
        if (!source->items().isEmpty())
            version = versionOf(source->items().first()->text());
        if (source->items().size() != ItemCount) {
            QKFeedbackItemList items;
            for (int i = 0; i < ItemCount; ++i) {
                auto item = QKFeedbackItem::create();
                item->setKey(QStringLiteral("k%1").arg(i));
                item->setState(QStringLiteral("Open"));
                item->setText(QStringLiteral("v%1").arg(version));
                items.append(item);
            }
            QImage noise(320, 240, QImage::Format_RGB32);
            for (int y = 0; y < noise.height(); ++y)
                QRandomGenerator::global()->fillRange(reinterpret_cast<quint32 *>(noise.scanLine(y)), noise.width());
            items.first()->setImage(noise);
            source->addFeedbackItems(items, [](auto) {});
        }
        save = [&](qint64 v) {
            for (const QKFeedbackItemPtr &item : source->items())
                item->setText(QStringLiteral("v%1").arg(v));
            return source->save();
        };
    } else {
        QKFeedback *feedback = QKFeedback::sharedInstance();
        version = versionOf(feedback->settings().value(QStringLiteral("Name")).toString());
        save = [feedback](qint64 v) {
            feedback->settings()[QStringLiteral("Name")] = QStringLiteral("v%1").arg(v);
            return feedback->saveSettings();
        };
    }

    report("running", version);
    for (qint64 done = 0; saves < 0 || done < saves; ++done) {
        if (!save(++version)) {
            report("failed", version);
            return 1;
        }
        report("saved", version);
    }
    return 0;
}
