#pragma once

#include "QKGlobal.h"

#include <QByteArray>
#include <QList>
#include <QString>

/// Replaces files whole: a reader (or a crash at any moment) sees either the old
/// content or the new, never a mix. The data goes to a temporary file in the same
/// directory, which is flushed to disk, renamed over the target, and then the
/// directory itself is flushed so that the rename survives a power cut.
class MURMORA_DATA_EXPORT QKAtomicFile
{
public:
    /// Writes `data` to `path`, creating the directory when missing. On failure the
    /// old file is untouched, no temporary file is left, `false` is returned and
    /// `errorString` (when given) says why.
    static bool write(const QString &path, const QByteArray &data, QString *errorString = nullptr);
    /// The same with the content given in pieces, written one after the other.
    static bool write(const QString &path, const QList<QByteArray> &pieces, QString *errorString = nullptr);
};
