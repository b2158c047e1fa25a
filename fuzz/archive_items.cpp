// The local source's archive file, any bytes: the source must load it or set it aside
// as damaged, and what it loads must survive its own save and reload.
#include "FuzzSupport.h"

#include "base/QKDocumentsDirectory.h"
#include "data/QKLocalFeedbackSource.h"

#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QTemporaryDir>

#include <cstdint>

using FuzzSupport::check;

namespace {

QTemporaryDir *documents;

// Equal as far as an archive keeps items: no params, images by their pixels' size.
void checkSame(const QKFeedbackItem &a, const QKFeedbackItem &b)
{
    check(a.key() == b.key() && a.key().isNull() == b.key().isNull(), "key changed on reload", a.key());
    check(a.text() == b.text() && a.author() == b.author() && a.state() == b.state(), "a text changed on reload");
    check(a.createdAt() == b.createdAt() && a.modifiedAt() == b.modifiedAt(), "a date changed on reload",
          a.createdAt().toString(Qt::ISODateWithMs) + QLatin1String(" / ") + b.createdAt().toString(Qt::ISODateWithMs));
    check(a.image().size() == b.image().size(), "image changed on reload");
    check(a.subItems().has_value() == b.subItems().has_value(), "sub-items appeared or vanished on reload");
    if (!a.subItems())
        return;
    check(a.subItems()->size() == b.subItems()->size(), "sub-item count changed on reload");
    for (qsizetype i = 0; i < a.subItems()->size(); ++i)
        checkSame(*a.subItems()->at(i), *b.subItems()->at(i));
}

QKFeedbackItemList load(bool mustLoad)
{
    QKFeedbackItemList items;
    QKLocalFeedbackSource source;
    source.feedbackItems([&](std::optional<QKFeedbackItemList> loaded, std::optional<QKError>) {
        if (loaded)
            items = *loaded;
    });
    if (const auto damaged = source.damagedArchive()) {
        check(!mustLoad, "the source refused the file it saved", damaged->reason);
        check(items.isEmpty(), "a refused file left items behind");
        check(!damaged->movedTo.isEmpty() && QFile::remove(damaged->movedTo), "the refused file was not kept",
              damaged->movedTo);
    }
    // The source saves on destruction: that file is what the next load reads.
    return items;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    FuzzSupport::startQt();
    // Every refused input would warn that it was moved aside.
    QLoggingCategory::setFilterRules(QStringLiteral("murmora.archive.warning=false"));
    // Memory-backed when there is such a place: every run writes the file twice.
    documents = new QTemporaryDir(QDir(QStringLiteral("/dev/shm")).exists()
                                      ? QStringLiteral("/dev/shm/murmora-fuzz-XXXXXX")
                                      : QDir::tempPath() + QStringLiteral("/murmora-fuzz-XXXXXX"));
    QKSetDocumentsDirectory(documents->path());
    std::atexit([] { delete documents; });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    QFile file(QKLocalFeedbackSource::archivePath());
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        FuzzSupport::fail("cannot write the archive", file.fileName());
    file.write(reinterpret_cast<const char *>(data), qint64(size));
    file.close();

    const QKFeedbackItemList first = load(false);
    if (first.isEmpty())
        return 0;
    const QKFeedbackItemList second = load(true);
    check(first.size() == second.size(), "item count changed on reload");
    for (qsizetype i = 0; i < first.size(); ++i)
        checkSame(*first.at(i), *second.at(i));
    return 0;
}
