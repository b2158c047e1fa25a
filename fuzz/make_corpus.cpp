// Writes the seeds that only the library can make: an items archive, a settings
// archive and PNGs of a few kinds. Usage: murmora-fuzz-corpus FUZZ_DIR (see make_corpus.sh).
#include "base/QKBase64.h"
#include "base/QKKeyedArchiver.h"
#include "base/QKPNGCodec.h"
#include "data/QKFeedbackItem.h"

#include <QBuffer>
#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>

#include <cstdio>

namespace {

QString root;

void write(const QString &target, const QString &name, const QByteArray &bytes)
{
    QDir().mkpath(root + QLatin1String("/corpus/") + target);
    QFile file(root + QLatin1String("/corpus/") + target + QLatin1Char('/') + name);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        std::fprintf(stderr, "cannot write %s\n", qPrintable(file.fileName()));
}

QImage picture(int width, int height, QImage::Format format)
{
    QImage image(width, height, QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.fillRect(0, 0, width / 2, height, QColor(10, 96, 255));
    painter.fillRect(width / 2, height / 2, width / 2, height / 2, QColor(200, 30, 30, 128));
    painter.end();
    return image.convertToFormat(format);
}

QByteArray saved(const QImage &image, const char *format)
{
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, format);
    return bytes;
}

QKFeedbackItemPtr item(const QString &key, const QString &text, const QDateTime &created)
{
    auto made = QKFeedbackItem::create();
    made->setKey(key);
    made->setText(text);
    made->setAuthor(QStringLiteral("Ana"));
    made->setState(QStringLiteral("Open"));
    made->setCreatedAt(created);
    return made;
}

} // namespace

int main(int argc, char **argv)
{
    QGuiApplication app(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FUZZ_DIR\n", argv[0]);
        return 2;
    }
    root = QString::fromLocal8Bit(argv[1]);

    const QDateTime created(QDate(2026, 11, 21), QTime(20, 34, 14, 123), Qt::UTC);
    auto first = item(QStringLiteral("a1"), QStringLiteral("The button is cut off"), created);
    first->setImage(picture(6, 4, QImage::Format_RGB32));
    auto comment = item(QString(), QStringLiteral("Fixed in 1.2"), created.addSecs(60));
    comment->setState(QString());
    first->addSubItem(comment);
    auto second = item(QStringLiteral("b2"), QStringLiteral("Tapped twice, sent once"), created.addDays(-1));
    second->setState(QStringLiteral("Resolved"));
    second->setModifiedAt(created);
    const QVariantList items{QVariant::fromValue(first.staticCast<QKCoding>()),
                             QVariant::fromValue(second.staticCast<QKCoding>())};
    write(QStringLiteral("archive_items"), QStringLiteral("two-items.plist"), QKKeyedArchiver::archivedData(items));
    write(QStringLiteral("archive_items"), QStringLiteral("empty.plist"),
          QKKeyedArchiver::archivedData(QVariantList()));

    write(QStringLiteral("archive_settings"), QStringLiteral("name.plist"),
          QKKeyedArchiver::archivedData(QVariantMap{{QStringLiteral("Name"), QStringLiteral("Ana Lima")}}));
    write(QStringLiteral("archive_settings"), QStringLiteral("anonymous.plist"),
          QKKeyedArchiver::archivedData(QVariantMap{{QStringLiteral("Name"), QStringLiteral("")}}));
    write(
        QStringLiteral("archive_settings"), QStringLiteral("mixed.plist"),
        QKKeyedArchiver::archivedData(QVariantMap{{QStringLiteral("Name"), QStringLiteral("Zoë")},
                                                  {QStringLiteral("Count"), 3},
                                                  {QStringLiteral("At"), created},
                                                  {QStringLiteral("List"), QVariantList{true, 2.5, QByteArray("x")}}}));

    write(QStringLiteral("png"), QStringLiteral("rgb.png"), QKPNGCodec::encode(picture(8, 6, QImage::Format_RGB32)));
    write(QStringLiteral("png"), QStringLiteral("rgba.png"), QKPNGCodec::encode(picture(5, 5, QImage::Format_ARGB32)));
    write(QStringLiteral("png"), QStringLiteral("indexed.png"), saved(picture(7, 3, QImage::Format_Indexed8), "PNG"));
    write(QStringLiteral("png"), QStringLiteral("gray16.png"), saved(picture(4, 4, QImage::Format_Grayscale16), "PNG"));
    write(QStringLiteral("png"), QStringLiteral("rgba64.png"), saved(picture(3, 2, QImage::Format_RGBA64), "PNG"));
    write(QStringLiteral("png"), QStringLiteral("mono.png"), saved(picture(9, 2, QImage::Format_Mono), "PNG"));
    write(QStringLiteral("png"), QStringLiteral("small.jpg"), saved(picture(8, 8, QImage::Format_RGB32), "JPEG"));
    write(QStringLiteral("png"), QStringLiteral("small.bmp"), saved(picture(3, 3, QImage::Format_RGB32), "BMP"));

    // Base64 as items carry their screenshots.
    write(QStringLiteral("base64"), QStringLiteral("png-lines.txt"),
          QKBase64::encodeWithLineBreaks(QKPNGCodec::encode(picture(8, 6, QImage::Format_RGB32))).toLatin1());
    return 0;
}
