// The send path and the local archive, each timed against its baseline in the same
// run, then one table of the figures. `--smoke` runs everything once, small, and
// enforces no goal (CTest uses it to keep this building and working).

#include "SyntheticScreenshot.h"

#include "models/QKFeedbackPoint.h"
#include "annotation/QKFeedbackSendViewController.h"
#include "base/QKDocumentsDirectory.h"
#include "base/QKDispatch.h"
#include "base/QKPNGCodec.h"
#include "base/QKPNGCodec_p.h"
#include "base/QKURLSession.h"
#include "core/QKFeedback.h"
#include "data/QKLocalFeedbackSource.h"
#include "data/QKPlatformFeedbackSource.h"
#include "kit/QKActionSheet.h"
#include "kit/QKAnimation.h"
#include "kit/QKView.h"
#include "kit/QKViewController.h"
#include "kit/QKWindow.h"
#include "support/TestService.h"

#include <benchmark/benchmark.h>

#include <QApplication>
#include <QBuffer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

struct Options
{
    bool smoke = false;
    std::string group; // a child run of one group only
    int archiveItems = 200;
    std::vector<int> markerCounts{1, 5, 10, 20};
    int decodeSample = 10; // PNGs decoded per iteration for the archive's baseline
};
Options options;

const QSize PhonePixels(1179, 2556);
const QSize TabletPixels(2048, 2732);
const QSizeF PhonePoints(393, 852);

// The screenshot as the façade holds it: premultiplied, at the screen's ratio.
QImage phoneScreenshot()
{
    static const QImage shot = [] {
        QImage image = syntheticScreenshot(PhonePixels).convertToFormat(QImage::Format_ARGB32_Premultiplied);
        image.setDevicePixelRatio(3);
        return image;
    }();
    return shot;
}

// An item's picture is the screenshot redrawn into a premultiplied canvas.
QImage itemImage(const QSize &pixels)
{
    return syntheticScreenshot(pixels).convertToFormat(QImage::Format_ARGB32_Premultiplied);
}

// `n` markers on a 4 × 5 grid over the phone screen, row by row, then around again
// half a cell off.
QList<QKFeedbackPointPtr> spreadPoints(int n)
{
    QList<QKFeedbackPointPtr> points;
    const qreal cellW = PhonePoints.width() / 4;
    const qreal cellH = PhonePoints.height() / 5;
    for (int i = 0; i < n; ++i) {
        const int cell = i % 20;
        const qreal offset = (i / 20) % 2 ? 0.25 : 0.5;
        const qreal jitter = (i / 40) * 3.0; // keeps later rounds off earlier markers
        auto point = QKFeedbackPointPtr::create(
            QPointF((cell % 4 + offset) * cellW + jitter, (cell / 4 + offset) * cellH + jitter));
        point->setAnnotationText(QStringLiteral("Marker %1: the label is cut off here").arg(i));
        points.append(point);
    }
    return points;
}

QByteArray qtPNG(const QImage &image)
{
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes;
}

// ---- 1. PNG encoding of one item's image

const char *sizeName(int which)
{
    return which == 0 ? "phone" : "tablet";
}

QImage encodeInput(int which)
{
    static const QImage images[2] = {itemImage(PhonePixels), itemImage(TabletPixels)};
    return images[which];
}

void encodeOurs(benchmark::State &state)
{
    const int which = int(state.range(0));
    const QImage image = encodeInput(which);
    QKPNGCodecUseQtEncoder(false);
    QByteArray png;
    // Checked once per size; Qt's reader, not ours, says what the bytes hold.
    static bool checked[2] = {false, false};
    if (!checked[which]) {
        png = QKPNGCodec::encode(image);
        const QImage decoded = QImage::fromData(png, "PNG");
        checked[which] = !decoded.isNull() &&
                         decoded.convertToFormat(QImage::Format_ARGB32) == image.convertToFormat(QImage::Format_ARGB32);
    }
    if (!checked[which]) {
        state.SkipWithError(qPrintable(QStringLiteral("our PNG of the %1 screenshot does not decode to its pixels")
                                           .arg(QLatin1String(sizeName(which)))));
        return;
    }
    for (auto _ : state) {
        png = QKPNGCodec::encode(image);
        benchmark::DoNotOptimize(png.constData());
    }
    state.counters["bytes"] = double(png.size());
}

void encodeQt(benchmark::State &state)
{
    const QImage image = encodeInput(int(state.range(0)));
    QByteArray png;
    for (auto _ : state) {
        png = qtPNG(image);
        benchmark::DoNotOptimize(png.constData());
    }
    state.counters["bytes"] = double(png.size());
}

// ---- 2. A send of n markers: the items and every item's PNG

void sendMarkers(benchmark::State &state)
{
    QKPNGCodecUseQtEncoder(false);
    const QImage shot = phoneScreenshot();
    const QList<QKFeedbackPointPtr> points = spreadPoints(int(state.range(0)));
    for (auto _ : state) {
        const QKFeedbackItemList items = QKFeedbackSendViewController::itemsForPoints(shot, PhonePoints, points);
        for (const QKFeedbackItemPtr &item : items)
            benchmark::DoNotOptimize(item->imagePNG().constData());
        if (items.size() != points.size()) {
            state.SkipWithError("itemsForPoints made the wrong number of items");
            return;
        }
    }
}

// ---- 3. The local archive

// The archive, built once through the real send path: every item is its own marker
// on the same screenshot, so every PNG differs.
struct Archive
{
    QTemporaryDir directory;
    QKFeedbackItemList items;
    QList<QByteArray> pngs;
    qint64 fileSize = 0;
    QKFeedbackItemList spares; // added one per iteration
    int nextSpare = 0;
    std::vector<qint64> addedSizes; // the file's size after each timed add
    QByteArray fileBytes;

    Archive()
    {
        QKPNGCodecUseQtEncoder(false);
        items = QKFeedbackSendViewController::itemsForPoints(phoneScreenshot(), PhonePoints,
                                                             spreadPoints(options.archiveItems));
        for (const QKFeedbackItemPtr &item : std::as_const(items))
            pngs.append(item->imagePNG());
        QKSetDocumentsDirectory(directory.path());
        {
            QKLocalFeedbackSource source;
            source.addFeedbackItems(items, [](std::optional<QKError>) {});
        }
        fileSize = QFileInfo(QKLocalFeedbackSource::archivePath()).size();
        QFile file(QKLocalFeedbackSource::archivePath());
        if (file.open(QIODevice::ReadOnly))
            fileBytes = file.readAll();
        spares = QKFeedbackSendViewController::itemsForPoints(phoneScreenshot(), PhonePoints, spreadPoints(64));
        for (const QKFeedbackItemPtr &item : std::as_const(spares))
            item->imageBase64(); // made at Send, before the source sees the item
    }
};

std::unique_ptr<Archive> theArchive;

Archive &archive()
{
    if (!theArchive)
        theArchive = std::make_unique<Archive>();
    QKSetDocumentsDirectory(theArchive->directory.path());
    return *theArchive;
}

// A source's destructor saves the whole list again; that is not part of what is timed,
// and a directory that cannot exist makes the save fail at once.
void closeWithoutSaving(std::unique_ptr<QKLocalFeedbackSource> source)
{
    const QString directory = QKDocumentsDirectory();
    QKSetDocumentsDirectory(QStringLiteral("/dev/null/closed"));
    source.reset();
    QKSetDocumentsDirectory(directory);
}

void archiveAdd(benchmark::State &state)
{
    Archive &a = archive();
    auto source = std::make_unique<QKLocalFeedbackSource>();
    for (auto _ : state) {
        const QKFeedbackItemPtr item = a.spares.at(a.nextSpare++ % a.spares.size());
        source->addFeedback(item, [](std::optional<QKError>) {});
        state.PauseTiming();
        a.addedSizes.push_back(QFileInfo(QKLocalFeedbackSource::archivePath()).size());
        state.ResumeTiming();
    }
    state.counters["bytes"] = double(a.addedSizes.back());
    closeWithoutSaving(std::move(source));
}

// The same number of bytes, in the same order of sizes, as the adds above wrote.
void plainWrite(benchmark::State &state)
{
    Archive &a = archive();
    if (a.addedSizes.empty()) {
        state.SkipWithError("the archive adds did not run");
        return;
    }
    const QByteArray path = QFile::encodeName(a.directory.filePath(QStringLiteral("plain.bin")));
    // The archive's own bytes, grown to the largest size and touched before timing.
    QByteArray bytes = a.fileBytes;
    const qint64 largest = *std::max_element(a.addedSizes.begin(), a.addedSizes.end());
    if (bytes.size() < largest)
        bytes.append(QByteArray(largest - bytes.size(), 'x'));
    bytes.detach();
    size_t next = 0;
    for (auto _ : state) {
        const qint64 size = a.addedSizes.at(next++ % a.addedSizes.size());
        // A new file each time, as the archive's save makes; dropping the old one is not timed.
        state.PauseTiming();
        ::unlink(path.constData());
        state.ResumeTiming();
        const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        qint64 done = 0;
        while (fd >= 0 && done < size) {
            const ssize_t n = ::write(fd, bytes.constData() + done, size_t(size - done));
            if (n <= 0)
                break;
            done += n;
        }
        const bool ok = fd >= 0 && done == size && ::fsync(fd) == 0;
        if (fd >= 0)
            ::close(fd);
        if (!ok) {
            state.SkipWithError("plain write failed");
            return;
        }
    }
    ::unlink(path.constData());
}

void archiveOpen(benchmark::State &state)
{
    archive();
    for (auto _ : state) {
        auto source = std::make_unique<QKLocalFeedbackSource>();
        qsizetype count = 0;
        source->feedbackItems([&count](std::optional<QKFeedbackItemList> items, std::optional<QKError>) {
            count = items ? items->size() : 0;
        });
        state.PauseTiming();
        if (count < options.archiveItems) {
            state.SkipWithError("the archive lost items");
            return;
        }
        closeWithoutSaving(std::move(source));
        state.ResumeTiming();
    }
}

// Decodes a fixed, evenly spread sample of the archive's PNGs; the table scales it up
// to every item.
void decodeSample(benchmark::State &state)
{
    Archive &a = archive();
    const int sample = std::min<int>(options.decodeSample, int(a.pngs.size()));
    const int step = int(a.pngs.size()) / sample;
    for (auto _ : state) {
        for (int i = 0; i < sample; ++i) {
            const QImage image = QKPNGCodec::decode(a.pngs.at(i * step));
            if (image.size() != PhonePixels) {
                state.SkipWithError("an archived PNG did not decode");
                return;
            }
        }
    }
    state.counters["sample"] = sample;
}

qint64 residentBytes()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toLongLong() * 1024;
    return -1;
}

// In a fresh process, so nothing the benchmarks left behind counts.
int residentChild(const QString &directory)
{
    QKSetDocumentsDirectory(directory);
    { // the library's own start-up, outside the growth
        QKFeedbackItem warm;
        QKLocalFeedbackSource::archivePath();
    }
    const qint64 before = residentBytes();
    auto *source = new QKLocalFeedbackSource; // never destroyed: that would save the file again
    const qint64 after = residentBytes();
    std::printf("%lld %lld\n", static_cast<long long>(after - before), static_cast<long long>(source->items().size()));
    std::fflush(stdout);
    std::_Exit(0);
}

// ---- 4. Opening the menu

struct MenuHost
{
    QTemporaryDir documents;
    QKWindow window{PhonePoints};

    MenuHost()
    {
        QKAnimation::setAnimationsEnabled(false);
        auto *host = new QKViewController;
        host->view()->setBackgroundColor(QColor(200, 220, 240));
        window.setRootViewController(host);
        window.makeKeyAndVisible();
        QApplication::setActiveWindow(&window);
        QCoreApplication::processEvents();
    }
};

std::unique_ptr<MenuHost> menuHost; // goes before the application does

void openMenu(benchmark::State &state)
{
    if (!menuHost)
        menuHost = std::make_unique<MenuHost>();
    QKSetDocumentsDirectory(menuHost->documents.path());
    QKFeedback::setDataSource(QSharedPointer<QKLocalFeedbackSource>::create());
    for (auto _ : state) {
        QKFeedback::showFeedback();
        QCoreApplication::processEvents(); // the first paint of the sheet
        state.PauseTiming();
        const QList<QKActionSheet *> sheets = QKActionSheet::visibleSheets();
        const QImage shot = QKFeedback::sharedInstance()->screenshot();
        if (sheets.size() != 1 || shot.size() != PhonePixels) {
            state.SkipWithError("the menu did not open at phone size with one sheet");
            return;
        }
        sheets.first()->dismissWithClickedButtonIndex(sheets.first()->cancelButtonIndex(), false);
        for (int i = 0; i < 100 && QKFeedback::feedbackIsShown(); ++i)
            QCoreApplication::processEvents();
        if (QKFeedback::feedbackIsShown()) {
            state.SkipWithError("the menu did not close");
            return;
        }
        state.ResumeTiming();
    }
    QKFeedback::setDataSource({});
}

// ---- 5. End to end: five markers to murmora-server

struct Service
{
    TestService server;
    QSharedPointer<QKURLSession> session = QSharedPointer<QKURLSession>::create();
    std::unique_ptr<QKPlatformFeedbackSource> source;

    Service()
    {
        if (!server.start())
            qFatal("the service does not start");
        session->addCaCertificates(FakeService::caCertificates());
        source = std::make_unique<QKPlatformFeedbackSource>(server.apiKey(), QStringLiteral("bench-device"),
                                                            server.baseUrl(), QVariantMap());
        source->setSession(session);
        source->setUserName(QStringLiteral("Bench"));
    }
};

std::unique_ptr<Service> service; // goes before the application does

void endToEnd(benchmark::State &state)
{
    if (!service)
        service = std::make_unique<Service>();
    const bool qtEncoder = state.range(0) != 0;
    const QImage shot = phoneScreenshot();
    const QList<QKFeedbackPointPtr> points = spreadPoints(5);
    QKPNGCodecUseQtEncoder(qtEncoder);
    for (auto _ : state) {
        // Shared with the completion, which may come late, on a global-queue thread.
        struct Outcome
        {
            std::atomic<bool> done = false;
            std::optional<QKError> error;
            QEventLoop *loop = nullptr; // main thread only
        };
        auto outcome = std::make_shared<Outcome>();
        QEventLoop loop;
        outcome->loop = &loop;
        const QKFeedbackItemList items = QKFeedbackSendViewController::itemsForPoints(shot, PhonePoints, points);
        service->source->addFeedbackItems(items, [outcome](std::optional<QKError> error) {
            outcome->error = error;
            outcome->done = true;
            QKDispatch::async(QKDispatch::mainQueue(), [outcome] {
                if (outcome->loop)
                    outcome->loop->quit();
            });
        });
        QTimer::singleShot(120000, &loop, &QEventLoop::quit);
        if (!outcome->done)
            loop.exec(); // the completion is handed to this thread
        outcome->loop = nullptr;
        const bool done = outcome->done;
        const std::optional<QKError> failure = done ? outcome->error : std::nullopt;
        state.PauseTiming();
        const qsizetype requests = service->server.requests().size();
        service->server.clearRequests();
        if (!done || failure || requests != points.size()) {
            state.SkipWithError(qPrintable(QStringLiteral("the send did not complete: %1 requests%2")
                                               .arg(requests)
                                               .arg(failure ? QStringLiteral(", ") + failure->message() : QString())));
            QKPNGCodecUseQtEncoder(false);
            return;
        }
        state.ResumeTiming();
    }
    QKPNGCodecUseQtEncoder(false);
}

// ---- Registration, results and the table

struct Result
{
    double ms = -1;
    std::map<std::string, double> counters;
    std::string error;
};
std::map<std::string, Result> results;

// Keeps the median of repetitions (or the only run) for the table; prints as usual.
class TableReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            const bool single = run.run_type == Run::RT_Iteration && run.repetitions <= 1;
            if (!single && !(run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") &&
                !run.error_occurred)
                continue;
            Result &result = results[run.run_name.str()];
            if (run.error_occurred) {
                result.error = run.error_message;
                continue;
            }
            result.ms = run.GetAdjustedRealTime() * (run.time_unit == benchmark::kMillisecond ? 1.0 : 1e-3);
            for (const auto &[name, counter] : run.counters)
                result.counters[name] = counter.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

// Fast figures repeat until the minimum time; slow ones run a fixed count, repeated.
benchmark::internal::Benchmark *configure(benchmark::internal::Benchmark *b, int iterations)
{
    b->Unit(benchmark::kMillisecond)->UseRealTime();
    if (options.smoke)
        return b->Iterations(1)->Repetitions(1);
    if (iterations > 0)
        b->Iterations(iterations);
    return b->Repetitions(5)->ReportAggregatesOnly(true);
}

std::string name(const char *base, int arg)
{
    return std::string(base) + "/" + std::to_string(arg);
}

benchmark::internal::Benchmark *registered(const char *base, void (*function)(benchmark::State &))
{
    return benchmark::RegisterBenchmark(base, function);
}

// Each group runs in a process of its own (see main): writing hundreds of megabytes,
// or encoding hundreds of pictures, leaves a heap behind that slows whatever comes next.
const std::vector<std::string> Groups{"encode", "send", "archive", "menu", "end-to-end"};

void registerAll()
{
    const auto in = [](const std::string &group) { return options.group.empty() || options.group == group; };
    if (in("encode")) {
        for (int which : {0, 1}) {
            configure(registered("encode/ours", encodeOurs)->Arg(which), 0);
            configure(registered("encode/qt", encodeQt)->Arg(which), 2);
        }
    }
    if (in("send"))
        for (int n : options.markerCounts)
            configure(registered("send", sendMarkers)->Arg(n), 0);
    if (in("archive")) {
        configure(benchmark::RegisterBenchmark("archive/add", archiveAdd), 2);
        configure(benchmark::RegisterBenchmark("archive/plain-write", plainWrite), 2);
        configure(benchmark::RegisterBenchmark("archive/open", archiveOpen), 2);
        configure(benchmark::RegisterBenchmark("archive/decode-sample", decodeSample), 2);
    }
    if (in("menu"))
        configure(benchmark::RegisterBenchmark("menu/open", openMenu), 0);
    if (in("end-to-end")) {
        configure(registered("end-to-end", endToEnd)->Arg(0), 2);
        configure(registered("end-to-end", endToEnd)->Arg(1), 2);
    }
}

// A child's results go to its parent as lines: name, milliseconds, error, counters.
void writeResults(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        qFatal("cannot write %s", qPrintable(path));
    for (const auto &[name, result] : results) {
        QByteArray line = QByteArray::fromStdString(name) + '\t' + QByteArray::number(result.ms, 'g', 17) + '\t' +
                          QByteArray::fromStdString(result.error).replace('\t', ' ').replace('\n', ' ');
        for (const auto &[counter, value] : result.counters)
            line += '\t' + QByteArray::fromStdString(counter) + '=' + QByteArray::number(value, 'g', 17);
        file.write(line + '\n');
    }
}

void readResults(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return;
    for (const QByteArray &line : file.readAll().split('\n')) {
        const QList<QByteArray> fields = line.split('\t');
        if (fields.size() < 3)
            continue;
        Result &result = results[fields[0].toStdString()];
        result.ms = fields[1].toDouble();
        result.error = fields[2].toStdString();
        for (qsizetype i = 3; i < fields.size(); ++i) {
            const qsizetype equals = fields[i].indexOf('=');
            result.counters[fields[i].left(equals).toStdString()] = fields[i].mid(equals + 1).toDouble();
        }
    }
}

// Run names go on with the run's settings ("send/5/iterations:1"); look one up by its prefix.
const Result *find(const std::string &prefix)
{
    for (const auto &[key, result] : results)
        if (key == prefix || key.rfind(prefix + "/", 0) == 0)
            return &result;
    return nullptr;
}

struct Row
{
    explicit Row(const QString &name) : figure(name) {}
    QString figure;
    double ours = -1;
    double baseline = -1;
    QString unit;
    double ratio = -1;
    QString goal;
    std::optional<bool> met; // nullopt: not measured
    QString note;
};

QString number(double value, const QString &unit)
{
    if (value < 0)
        return QStringLiteral("-");
    if (unit == QLatin1String("ms"))
        return QString::number(value, 'f', value < 10 ? 2 : 1) + QStringLiteral(" ms");
    if (unit == QLatin1String("MB"))
        return QString::number(value / 1e6, 'f', 2) + QStringLiteral(" MB");
    return QString::number(value, 'g', 4) + unit;
}

// Either both runs exist without errors or the row says why not.
bool measured(Row &row, std::initializer_list<const Result *> runs)
{
    for (const Result *r : runs) {
        if (!r || r->ms < 0) {
            row.note = r && !r->error.empty() ? QString::fromStdString(r->error) : QStringLiteral("not run");
            return false;
        }
    }
    return true;
}

QList<Row> table(qint64 residentGrowth, qsizetype residentItems)
{
    QList<Row> rows;
    for (int which : {0, 1}) {
        const Result *ours = find(name("encode/ours", which));
        const Result *qt = find(name("encode/qt", which));
        const QString size = QLatin1String(sizeName(which));
        Row time{QStringLiteral("1. PNG encode, %1: time").arg(size)};
        Row bytes{QStringLiteral("1. PNG encode, %1: size").arg(size)};
        time.goal = QStringLiteral("≤ 1/30 (≥30× faster)");
        bytes.goal = QStringLiteral("≤ 1.25");
        if (measured(time, {ours, qt})) {
            time.ours = ours->ms, time.baseline = qt->ms, time.unit = QStringLiteral("ms");
            time.ratio = ours->ms / qt->ms;
            time.met = time.ratio <= 1.0 / 30;
            time.note = QStringLiteral("%1× faster; pixels checked").arg(qt->ms / ours->ms, 0, 'f', 1);
            bytes.ours = ours->counters.at("bytes"), bytes.baseline = qt->counters.at("bytes");
            bytes.unit = QStringLiteral("MB");
            bytes.ratio = bytes.ours / bytes.baseline;
            bytes.met = bytes.ratio <= 1.25;
        } else {
            bytes.note = time.note;
        }
        rows << time << bytes;
    }

    const Result *one = find(name("send", 1));
    for (int n : options.markerCounts) {
        if (n == 1)
            continue;
        const Result *many = find(name("send", n));
        Row row{QStringLiteral("2. send of %1 markers").arg(n)};
        row.unit = QStringLiteral("ms");
        if (!measured(row, {one, many})) {
            rows << row;
            continue;
        }
        row.ours = many->ms, row.baseline = one->ms, row.ratio = many->ms / one->ms;
        const double perExtra = (many->ms - one->ms) / (n - 1) / one->ms;
        row.note = QStringLiteral("per extra marker: %1 of one item").arg(perExtra, 0, 'f', 3);
        if (n == 5) {
            row.goal = QStringLiteral("≤ 1.5 × cost(1)");
            row.met = row.ratio <= 1.5;
        }
        if (n == options.markerCounts.back()) {
            row.goal = row.goal.isEmpty() ? QString() : row.goal + QStringLiteral("; ");
            row.goal += QStringLiteral("per extra ≤ 0.10");
            row.met = row.met.value_or(true) && perExtra <= 0.10;
        }
        rows << row;
    }

    const Result *add = find("archive/add");
    const Result *plain = find("archive/plain-write");
    Row addRow{QStringLiteral("3a. archive: add one item (%1 items)").arg(options.archiveItems)};
    addRow.goal = QStringLiteral("≤ 1.5× plain write+fsync");
    if (measured(addRow, {add, plain})) {
        addRow.ours = add->ms, addRow.baseline = plain->ms, addRow.unit = QStringLiteral("ms");
        addRow.ratio = add->ms / plain->ms;
        addRow.met = addRow.ratio <= 1.5;
        addRow.note = QStringLiteral("file %1 MB").arg(add->counters.at("bytes") / 1e6, 0, 'f', 1);
    }
    rows << addRow;

    const Result *open = find("archive/open");
    const Result *decode = find("archive/decode-sample");
    Row openRow{QStringLiteral("3b. archive: open")};
    openRow.goal = QStringLiteral("≤ 0.02× decoding every image");
    if (measured(openRow, {open, decode})) {
        const double sample = decode->counters.at("sample");
        openRow.ours = open->ms, openRow.baseline = decode->ms * options.archiveItems / sample;
        openRow.unit = QStringLiteral("ms");
        openRow.ratio = openRow.ours / openRow.baseline;
        openRow.met = openRow.ratio <= 0.02;
        openRow.note =
            QStringLiteral("baseline: %1 PNGs decoded, scaled ×%2").arg(sample).arg(options.archiveItems / sample);
    }
    rows << openRow;

    Row rss{QStringLiteral("3c. archive: resident after open")};
    rss.goal = QStringLiteral("≤ 1.1× file size");
    const Result *resident = find("resident");
    const qint64 fileSize = resident && resident->counters.count("file") ? qint64(resident->counters.at("file")) : -1;
    if (residentGrowth >= 0 && residentItems >= options.archiveItems && fileSize > 0) {
        rss.ours = double(residentGrowth), rss.baseline = double(fileSize), rss.unit = QStringLiteral("MB");
        rss.ratio = rss.ours / rss.baseline;
        rss.met = rss.ratio <= 1.1;
        rss.note = QStringLiteral("VmRSS growth in a fresh process");
    } else {
        rss.note = resident ? QStringLiteral("the child process failed") : QStringLiteral("not run");
    }
    rows << rss;

    const Result *menu = find("menu/open");
    Row menuRow{QStringLiteral("4. open the menu (393×852 @3)")};
    menuRow.goal = QStringLiteral("< 33 ms");
    if (measured(menuRow, {menu})) {
        menuRow.ours = menu->ms, menuRow.baseline = 33, menuRow.unit = QStringLiteral("ms");
        menuRow.ratio = menu->ms / 33;
        menuRow.met = menu->ms < 33;
        menuRow.note = QStringLiteral("screenshot, sheet shown and painted");
    }
    rows << menuRow;

    const Result *ours = find(name("end-to-end", 0));
    const Result *qt = find(name("end-to-end", 1));
    Row e2e{QStringLiteral("5. send 5 markers to the service")};
    e2e.goal = QStringLiteral("≤ 0.2× with Qt's encoder");
    if (measured(e2e, {ours, qt})) {
        e2e.ours = ours->ms, e2e.baseline = qt->ms, e2e.unit = QStringLiteral("ms");
        e2e.ratio = ours->ms / qt->ms;
        e2e.met = e2e.ratio <= 0.2;
        e2e.note = QStringLiteral("murmora-server (SQLite) on 127.0.0.1");
    }
    rows << e2e;
    return rows;
}

int printTable(const QList<Row> &rows)
{
    const QStringList header{QStringLiteral("figure"), QStringLiteral("ours"), QStringLiteral("baseline"),
                             QStringLiteral("ratio"),  QStringLiteral("goal"), QStringLiteral("met"),
                             QStringLiteral("notes")};
    QList<QStringList> lines{header};
    int missed = 0;
    for (const Row &row : rows) {
        const QString met = !row.met ? QStringLiteral("-") : *row.met ? QStringLiteral("yes") : QStringLiteral("no");
        if (row.met && !*row.met)
            ++missed;
        if (!row.met && !row.goal.isEmpty() && row.note != QLatin1String("not run"))
            ++missed; // a goal whose run failed is not met
        lines << QStringList{row.figure,
                             number(row.ours, row.unit),
                             number(row.baseline, row.unit),
                             row.ratio < 0 ? QStringLiteral("-") : QString::number(row.ratio, 'f', 3),
                             row.goal,
                             met,
                             row.note};
    }
    QList<int> widths(header.size(), 0);
    for (const QStringList &line : lines)
        for (int i = 0; i < line.size(); ++i)
            widths[i] = std::max<int>(widths[i], int(line[i].size()));
    std::printf("\n");
    for (int l = 0; l < lines.size(); ++l) {
        QString text;
        for (int i = 0; i < lines[l].size(); ++i)
            text += (i ? QStringLiteral(" | ") : QString()) + lines[l][i].leftJustified(widths[i]);
        std::printf("%s\n", qPrintable(text.trimmed()));
        if (l == 0) {
            QString rule;
            for (int i = 0; i < widths.size(); ++i)
                rule += (i ? QStringLiteral("-|-") : QString()) + QString(widths[i], QLatin1Char('-'));
            std::printf("%s\n", qPrintable(rule));
        }
    }
    std::printf("\nArchive items are %d markers on one synthetic screenshot, each its own PNG via "
                "itemsForPoints.%s\n",
                options.archiveItems, options.smoke ? " Smoke run: one iteration each, goals not enforced." : "");
    return missed;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && std::strcmp(argv[1], "--resident-child") == 0) {
        QCoreApplication app(argc, argv);
        return residentChild(QString::fromLocal8Bit(argv[2]));
    }

    std::vector<char *> args;
    QStringList passedOn; // to each group's process
    QString resultsPath;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--smoke") == 0) {
            options.smoke = true;
            options.archiveItems = 20;
            options.markerCounts = {1, 5};
            options.decodeSample = 2;
        } else if (std::strcmp(argv[i], "--group") == 0 && i + 2 < argc) {
            options.group = argv[++i];
            resultsPath = QString::fromLocal8Bit(argv[++i]);
        } else {
            args.push_back(argv[i]);
            if (i > 0)
                passedOn.append(QString::fromLocal8Bit(argv[i]));
        }
    }
    int benchArgc = int(args.size());
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM") && qEnvironmentVariableIsEmpty("DISPLAY"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("QT_SCALE_FACTOR", "3"); // the menu's window at a phone's pixel ratio
    QApplication app(argc, argv);

    benchmark::Initialize(&benchArgc, args.data());
    if (benchmark::ReportUnrecognizedArguments(benchArgc, args.data()))
        return 2;
    if (!options.smoke && options.group.empty()) {
        // The parent: one process per group, each printing as it goes, then the table.
        QTemporaryDir scratch;
        for (const std::string &group : Groups) {
            const QString path = scratch.filePath(QString::fromStdString(group));
            QProcess child;
            child.setProcessChannelMode(QProcess::ForwardedChannels);
            child.start(QCoreApplication::applicationFilePath(),
                        QStringList{QStringLiteral("--group"), QString::fromStdString(group), path} + passedOn);
            if (!child.waitForFinished(-1) || child.exitCode() != 0)
                std::printf("the %s benchmarks ended abnormally\n", group.c_str());
            readResults(path);
        }
    } else {
        registerAll();
        TableReporter reporter;
        benchmark::RunSpecifiedBenchmarks(&reporter);
    }

    // The resident memory of a fresh process opening the archive that this process made.
    QProcess child;
    if (theArchive)
        child.start(QCoreApplication::applicationFilePath(),
                    {QStringLiteral("--resident-child"), theArchive->directory.path()});
    if (theArchive && child.waitForFinished(120000) && child.exitCode() == 0) {
        const QList<QByteArray> fields = child.readAllStandardOutput().trimmed().split(' ');
        if (fields.size() == 2) {
            results["resident"].counters["growth"] = fields[0].toDouble();
            results["resident"].counters["items"] = fields[1].toDouble();
            results["resident"].counters["file"] = double(theArchive->fileSize);
        }
    }
    int missed = 0;
    if (options.group.empty()) {
        const Result *resident = find("resident");
        const qint64 growth = resident ? qint64(resident->counters.at("growth")) : -1;
        const qsizetype residentItems = resident ? qsizetype(resident->counters.at("items")) : 0;
        missed = printTable(table(growth, residentItems));
    } else {
        writeResults(resultsPath);
    }
    service.reset();
    menuHost.reset();
    theArchive.reset();
    if (options.smoke || !options.group.empty())
        return 0;
    if (missed)
        std::printf("%d goal(s) not met.\n", missed);
    return missed ? 1 : 0;
}
