#include "QKAtomicFile.h"

#include <QDir>
#include <QFileInfo>

#ifdef Q_OS_WIN
#include <QSaveFile>
#else
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#endif

namespace {

bool fail(QString *errorString, const QString &message)
{
    if (errorString)
        *errorString = message;
    return false;
}

#ifndef Q_OS_WIN
QString systemError(const QString &what, const QString &path)
{
    return QStringLiteral("%1 %2: %3").arg(what, path, QString::fromLocal8Bit(std::strerror(errno)));
}

bool writeAll(int fd, const char *data, qint64 size)
{
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size_t(qMin<qint64>(size, 1 << 30)));
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += written;
        size -= written;
    }
    return true;
}

QString temporaryPrefix(const QString &fileName)
{
    return QLatin1Char('.') + fileName + QLatin1Char('.');
}

// A writer killed between creating its temporary and the rename leaves the temporary
// behind; the next save removes those whose process is gone.
void removeStaleTemporaries(const QString &directory, const QString &fileName)
{
    const QString prefix = temporaryPrefix(fileName);
    const QDir dir(directory);
    for (const QString &name :
         dir.entryList({prefix + QStringLiteral("*.*")}, QDir::Files | QDir::Hidden | QDir::System)) {
        bool isNumber = false;
        const qint64 pid = name.mid(prefix.size()).section(QLatin1Char('.'), 0, 0).toLongLong(&isNumber);
        if (!isNumber || pid <= 0 || pid == ::getpid())
            continue;
        if (::kill(pid_t(pid), 0) != 0 && errno == ESRCH)
            ::unlink(QFile::encodeName(dir.filePath(name)).constData());
    }
}

// Replacing a file frees the old one's blocks inside the rename, which for hundreds of
// megabytes takes as long as writing them. A large old file gets a second name first,
// so that the rename only drops a link; the last name goes on another thread. A kill
// in between leaves a stale name like a temporary's, which a later save removes.
constexpr qint64 ReleaseApartSize = qint64(16) << 20;

QByteArray keepForRelease(const QString &directory, const QString &fileName, const QByteArray &finalPath,
                          const struct stat &old)
{
    static std::atomic<quint32> counter{0};
    if (old.st_size < ReleaseApartSize || old.st_nlink != 1)
        return QByteArray();
    const QByteArray kept =
        QFile::encodeName(directory + QLatin1Char('/') + temporaryPrefix(fileName) + QString::number(::getpid()) +
                          QStringLiteral(".old") + QString::number(counter++));
    return ::link(finalPath.constData(), kept.constData()) == 0 ? kept : QByteArray();
}

int closeKeepingErrno(int fd)
{
    const int saved = errno;
    const int result = ::close(fd);
    errno = saved;
    return result;
}
#endif

} // namespace

bool QKAtomicFile::write(const QString &path, const QByteArray &data, QString *errorString)
{
    return write(path, QList<QByteArray>{data}, errorString);
}

bool QKAtomicFile::write(const QString &path, const QList<QByteArray> &pieces, QString *errorString)
{
    const QFileInfo target(path);
    const QString directory = target.absolutePath();
    if (!QDir().mkpath(directory))
        return fail(errorString, QStringLiteral("cannot create directory %1").arg(directory));

#ifdef Q_OS_WIN
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return fail(errorString, file.errorString());
    for (const QByteArray &data : pieces)
        if (file.write(data) != data.size())
            return fail(errorString, file.errorString());
    if (!file.commit())
        return fail(errorString, file.errorString());
    return true;
#else
    const QByteArray finalPath = QFile::encodeName(target.absoluteFilePath());
    // The writer's process id in the name tells a later save which leftovers are stale.
    QByteArray tempPath = QFile::encodeName(directory + QLatin1Char('/') + temporaryPrefix(target.fileName()) +
                                            QString::number(::getpid()) + QStringLiteral(".XXXXXX"));
    const int fd = ::mkostemp(tempPath.data(), O_CLOEXEC);
    if (fd < 0)
        return fail(errorString, systemError(QStringLiteral("cannot create a temporary file in"), directory));
    const QString tempName = QFile::decodeName(tempPath);

    bool written = true;
    for (const QByteArray &data : pieces)
        written = written && writeAll(fd, data.constData(), data.size());
    if (!written || ::fsync(fd) != 0) {
        const QString message = systemError(QStringLiteral("cannot write"), tempName);
        closeKeepingErrno(fd);
        ::unlink(tempPath.constData());
        return fail(errorString, message);
    }
    // mkostemp creates 0600, which suits private data; a replaced file keeps its mode.
    struct stat old;
    const bool replacing = ::stat(finalPath.constData(), &old) == 0;
    if (replacing)
        ::fchmod(fd, old.st_mode & 07777);
    if (::close(fd) != 0) {
        const QString message = systemError(QStringLiteral("cannot close"), tempName);
        ::unlink(tempPath.constData());
        return fail(errorString, message);
    }
    const QByteArray kept = replacing ? keepForRelease(directory, target.fileName(), finalPath, old) : QByteArray();
    if (::rename(tempPath.constData(), finalPath.constData()) != 0) {
        const QString message = systemError(QStringLiteral("cannot replace"), path);
        ::unlink(tempPath.constData());
        if (!kept.isEmpty())
            ::unlink(kept.constData());
        return fail(errorString, message);
    }
    removeStaleTemporaries(directory, target.fileName());
    const int dirFd = ::open(QFile::encodeName(directory).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd >= 0) {
        // The new content is in place; a failed directory sync only weakens durability.
        ::fsync(dirFd);
        ::close(dirFd);
    }
    if (!kept.isEmpty())
        std::thread([kept] { ::unlink(kept.constData()); }).detach();
    return true;
#endif
}
