#include "QKBinaryPropertyListCheck_p.h"

#include "QKArchiveException.h"

#include <QList>
#include <QString>

namespace {

constexpr qsizetype HeaderSize = 8;
constexpr qsizetype TrailerSize = 32;
// Keyed archives nest only a few levels (top, objects, object, references).
constexpr int MaxNesting = 32;

[[noreturn]] void malformed(const QString &what)
{
    throw QKArchiveException(QStringLiteral("malformed binary property list: ") + what);
}

quint64 readBigEndian(const uchar *p, int size)
{
    quint64 value = 0;
    for (int i = 0; i < size; ++i)
        value = (value << 8) | p[i];
    return value;
}

struct Reader
{
    const uchar *bytes;
    quint64 objectsEnd; // objects lie before the offset table
    quint64 objectCount;
    int refSize;

    // The length of the object at `offset` and where its references start, if any.
    struct Object
    {
        quint64 refsAt = 0;
        quint64 refCount = 0;
    };

    quint64 need(quint64 at, quint64 size, quint64 offset) const
    {
        if (at > objectsEnd || size > objectsEnd - at)
            malformed(QStringLiteral("object at offset %1 runs past the object table").arg(offset));
        return at + size;
    }

    // Reads a count that follows a marker whose low nibble is 0xF.
    quint64 count(quint64 &at, int info, quint64 offset) const
    {
        if (info != 0xF)
            return quint64(info);
        need(at, 1, offset);
        const uchar marker = bytes[at++];
        const int size = 1 << (marker & 0xF);
        if ((marker >> 4) != 0x1 || size > 8)
            malformed(QStringLiteral("bad length of the object at offset %1").arg(offset));
        need(at, quint64(size), offset);
        const quint64 value = readBigEndian(bytes + at, size);
        at += quint64(size);
        return value;
    }

    Object parse(quint64 offset) const
    {
        quint64 at = offset;
        need(at, 1, offset);
        const uchar marker = bytes[at++];
        const int type = marker >> 4;
        const int info = marker & 0xF;
        Object object;
        switch (type) {
        case 0x0:
            if (info != 0x0 && info != 0x8 && info != 0x9 && info != 0xF)
                malformed(QStringLiteral("unknown object type 0x%1 at offset %2")
                              .arg(marker, 2, 16, QLatin1Char('0'))
                              .arg(offset));
            break;
        case 0x1:
            if (info > 4)
                malformed(QStringLiteral("integer of %1 bytes at offset %2").arg(1 << info).arg(offset));
            need(at, quint64(1) << info, offset);
            break;
        case 0x2:
            if (info != 2 && info != 3)
                malformed(QStringLiteral("real of %1 bytes at offset %2").arg(1 << info).arg(offset));
            need(at, quint64(1) << info, offset);
            break;
        case 0x3:
            if (info != 3)
                malformed(QStringLiteral("bad date at offset %1").arg(offset));
            need(at, 8, offset);
            break;
        case 0x4:
        case 0x5:
        case 0x6: {
            const quint64 n = count(at, info, offset);
            if (type == 0x6 && n > (objectsEnd - at) / 2)
                malformed(QStringLiteral("string at offset %1 runs past the object table").arg(offset));
            need(at, type == 0x6 ? n * 2 : n, offset);
            break;
        }
        case 0x8:
            if (info > 7)
                malformed(QStringLiteral("reference of %1 bytes at offset %2").arg(info + 1).arg(offset));
            need(at, quint64(info) + 1, offset);
            break;
        case 0xA:
        case 0xC:
        case 0xD: {
            const quint64 n = count(at, info, offset);
            const quint64 refs = type == 0xD ? 2 : 1;
            if (n > (objectsEnd - at) / quint64(refSize) / refs)
                malformed(QStringLiteral("collection at offset %1 claims %2 entries, more than the file holds")
                              .arg(offset)
                              .arg(n));
            need(at, n * refs * quint64(refSize), offset);
            object.refsAt = at;
            object.refCount = n * refs;
            break;
        }
        default:
            malformed(QStringLiteral("unknown object type 0x%1 at offset %2")
                          .arg(marker, 2, 16, QLatin1Char('0'))
                          .arg(offset));
        }
        return object;
    }

    quint64 ref(const Object &object, quint64 i) const
    {
        const quint64 value = readBigEndian(bytes + object.refsAt + i * quint64(refSize), refSize);
        if (value >= objectCount)
            malformed(QStringLiteral("object reference %1 out of range (%2 objects)").arg(value).arg(objectCount));
        return value;
    }
};

} // namespace

void QKCheckBinaryPropertyList(const QByteArray &data)
{
    const auto size = quint64(data.size());
    if (size < quint64(HeaderSize + 1 + TrailerSize))
        malformed(QStringLiteral("%1 bytes are too few").arg(size));
    if (!data.startsWith("bplist00"))
        malformed(QStringLiteral("the header is not \"bplist00\""));
    const auto *bytes = reinterpret_cast<const uchar *>(data.constData());
    const uchar *trailer = bytes + size - TrailerSize;
    const int offsetSize = trailer[6];
    const int refSize = trailer[7];
    const quint64 objectCount = readBigEndian(trailer + 8, 8);
    const quint64 top = readBigEndian(trailer + 16, 8);
    const quint64 tableAt = readBigEndian(trailer + 24, 8);
    if (offsetSize < 1 || offsetSize > 8 || refSize < 1 || refSize > 8)
        malformed(QStringLiteral("bad trailer: offset size %1, reference size %2").arg(offsetSize).arg(refSize));
    const quint64 tableEnd = size - TrailerSize;
    if (tableAt < quint64(HeaderSize) || tableAt > tableEnd)
        malformed(QStringLiteral("bad trailer: offset table at %1").arg(tableAt));
    // Every object takes at least one byte before the table.
    if (objectCount == 0 || objectCount > (tableEnd - tableAt) / quint64(offsetSize) ||
        objectCount > tableAt - quint64(HeaderSize))
        malformed(QStringLiteral("bad trailer: %1 objects do not fit the offset table").arg(objectCount));
    if (top >= objectCount)
        malformed(QStringLiteral("bad trailer: top object %1 of %2").arg(top).arg(objectCount));

    Reader reader{bytes, tableAt, objectCount, refSize};
    QList<quint64> offsets(qsizetype(objectCount), 0);
    for (quint64 i = 0; i < objectCount; ++i) {
        const quint64 offset = readBigEndian(bytes + tableAt + i * quint64(offsetSize), offsetSize);
        if (offset < quint64(HeaderSize) || offset >= tableAt)
            malformed(QStringLiteral("bad offset table: object %1 at offset %2").arg(i).arg(offset));
        offsets[qsizetype(i)] = offset;
    }

    // Depth-first walk without recursion. `expanded` is the node count of each object
    // once its shared children are copied, as a parser that builds a tree will do.
    enum : uchar { Unseen, Open, Done };
    QList<uchar> state(qsizetype(objectCount), Unseen);
    QList<quint64> expanded(qsizetype(objectCount), 0);
    struct Frame
    {
        quint64 index;
        Reader::Object object;
        quint64 next;
    };
    QList<Frame> stack;
    quint64 totalRefs = 0;
    const auto open = [&](quint64 index) {
        if (stack.size() >= MaxNesting)
            malformed(QStringLiteral("nesting deeper than %1 levels").arg(MaxNesting));
        state[qsizetype(index)] = Open;
        stack.append(Frame{index, reader.parse(offsets[qsizetype(index)]), 0});
        totalRefs += stack.last().object.refCount;
    };
    open(top);
    while (!stack.isEmpty()) {
        Frame &frame = stack.last();
        if (frame.next < frame.object.refCount) {
            const quint64 child = reader.ref(frame.object, frame.next++);
            if (state[qsizetype(child)] == Open)
                malformed(QStringLiteral("reference cycle through object %1").arg(child));
            if (state[qsizetype(child)] == Unseen)
                open(child);
            continue;
        }
        quint64 nodes = 1;
        for (quint64 i = 0; i < frame.object.refCount; ++i)
            nodes = qMin<quint64>(nodes + expanded[qsizetype(reader.ref(frame.object, i))], quint64(1) << 62);
        expanded[qsizetype(frame.index)] = nodes;
        state[qsizetype(frame.index)] = Done;
        stack.removeLast();
    }
    const quint64 limit = 2 * (totalRefs + objectCount) + 1024;
    if (expanded[qsizetype(top)] > limit)
        malformed(QStringLiteral("shared objects expand to %1 nodes").arg(expanded[qsizetype(top)]));
}
