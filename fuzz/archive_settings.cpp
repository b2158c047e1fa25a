// The façade's settings file (a keyed archive of a dictionary holding the user's
// name), any bytes: read as the façade reads it, then archived again, it must read
// back the same.
#include "FuzzSupport.h"

#include "base/QKArchiveException.h"
#include "base/QKKeyedArchiver.h"
#include "base/QKKeyedUnarchiver.h"

#include <cstdint>

MURMORA_FUZZ_INITIALIZE

using FuzzSupport::check;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray input(reinterpret_cast<const char *>(data), qsizetype(size));
    QVariant root;
    try {
        root = QKKeyedUnarchiver::unarchivedObject(input);
    } catch (const QKArchiveException &) {
        return 0; // the façade falls back to its defaults
    }
    // Whatever the root is, what was read can be written and read again.
    QByteArray again;
    try {
        again = QKKeyedArchiver::archivedData(root);
    } catch (const QKArchiveException &error) {
        FuzzSupport::fail("a read archive cannot be written again", error.reason());
    }
    QVariant reread;
    try {
        reread = QKKeyedUnarchiver::unarchivedObject(again);
    } catch (const QKArchiveException &error) {
        FuzzSupport::fail("a rewritten archive cannot be read", error.reason());
    }
    check(reread.metaType() == root.metaType(), "the root changed type", QString::fromLatin1(root.metaType().name()));
    if (root.metaType().id() != QMetaType::QVariantMap)
        return 0;
    const QVariantMap settings = root.toMap(), rereadSettings = reread.toMap();
    check(settings.keys() == rereadSettings.keys(), "settings keys changed");
    const QString name = settings.value(QStringLiteral("Name")).toString();
    check(name == rereadSettings.value(QStringLiteral("Name")).toString(), "the name changed", name);
    return 0;
}
