// Runs every file of the folders given through the fuzz target once: the corpus and
// the regressions as a quick test, without libFuzzer.
#include <QDir>
#include <QFile>

#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    int runs = 0;
    for (int i = 1; i < argc; ++i) {
        const QDir dir(QString::fromLocal8Bit(argv[i]));
        // A target without regressions yet has no folder for them.
        if (!dir.exists())
            continue;
        for (const QString &name : dir.entryList(QDir::Files, QDir::Name)) {
            QFile file(dir.filePath(name));
            if (!file.open(QIODevice::ReadOnly)) {
                std::fprintf(stderr, "cannot read %s\n", qPrintable(file.fileName()));
                return 1;
            }
            const QByteArray data = file.readAll();
            std::fprintf(stderr, "%s\n", qPrintable(file.fileName()));
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(data.constData()), size_t(data.size()));
            ++runs;
        }
    }
    std::printf("%d inputs\n", runs);
    // A corpus that vanished would make the test pass on nothing.
    return runs > 0 ? 0 : 1;
}
