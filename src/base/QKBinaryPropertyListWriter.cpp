#include "QKBinaryPropertyListWriter_p.h"

#include <QHash>
#include <QtEndian>

#include <cstring>
#include <deque>
#include <vector>

namespace {

// Payloads larger than this are written from their own arrays, and not compared with
// others for sharing: hashing megabytes of Base64 would cost more than it saves.
constexpr qsizetype LargePayload = 4096;
// ... and in pieces of this size: the page cache then keeps the file in small folios,
// which a later mapping of it (the next open) reads at full speed. Large folios read
// through a mapping were three times slower on a virtual machine that shadows page
// tables.
constexpr qsizetype LargePayloadPiece = 64 * 1024;

int bytesFor(quint64 value)
{
    if (value <= 0xff)
        return 1;
    if (value <= 0xffff)
        return 2;
    if (value <= 0xffffffffu)
        return 4;
    return 8;
}

class Writer
{
public:
    QList<QByteArray> write(const QKPlistNode &root)
    {
        flatten(root);
        m_refSize = bytesFor(quint64(m_objects.size()));

        // Objects first, noting where each starts; then the offset table and trailer.
        m_current.append("bplist00", 8);
        std::vector<quint64> offsets(m_objects.size());
        for (size_t i = 0; i < m_objects.size(); ++i) {
            offsets[i] = m_written + quint64(m_current.size());
            writeObject(m_objects[i]);
        }
        const quint64 tableAt = m_written + quint64(m_current.size());
        const int offsetSize = bytesFor(tableAt);
        for (quint64 offset : offsets)
            appendSized(offset, offsetSize);
        m_current.append(6, '\0');
        m_current.append(char(offsetSize));
        m_current.append(char(m_refSize));
        appendSized(quint64(m_objects.size()), 8);
        appendSized(0, 8); // the root is written first
        appendSized(tableAt, 8);
        m_pieces.append(m_current);
        return m_pieces;
    }

private:
    // One object of the flat table: its node and, for collections, the indices of its
    // keys and values.
    struct Object
    {
        const QKPlistNode *node = nullptr;
        std::vector<quint64> refs;
    };

    quint64 flatten(const QKPlistNode &node)
    {
        const bool shareable = node.kind != QKPlistNode::Array && node.kind != QKPlistNode::Dict &&
                               node.text.size() <= LargePayload && node.bytes.size() <= LargePayload;
        QByteArray identity;
        if (shareable) {
            identity = encodeLeaf(node);
            if (auto found = m_shared.constFind(identity); found != m_shared.constEnd())
                return *found;
        }
        const quint64 index = quint64(m_objects.size());
        m_objects.push_back(Object{&node, {}});
        if (shareable)
            m_shared.insert(identity, index);
        if (node.kind == QKPlistNode::Array || node.kind == QKPlistNode::Dict) {
            std::vector<quint64> refs;
            if (node.kind == QKPlistNode::Dict)
                for (const QString &key : node.keys)
                    refs.push_back(flatten(keyNode(key)));
            for (const QKPlistNode &value : node.values)
                refs.push_back(flatten(value));
            m_objects[index].refs = std::move(refs);
        }
        return index;
    }

    // Dictionary keys become string nodes that live as long as the writer.
    const QKPlistNode &keyNode(const QString &key)
    {
        m_keys.push_back(QKPlistNode::string(key));
        return m_keys.back();
    }

    void writeObject(const Object &object)
    {
        const QKPlistNode &node = *object.node;
        if (node.kind == QKPlistNode::Array || node.kind == QKPlistNode::Dict) {
            const quint64 count =
                node.kind == QKPlistNode::Dict ? quint64(node.keys.size()) : quint64(node.values.size());
            appendMarker(node.kind == QKPlistNode::Dict ? 0xD : 0xA, count);
            for (quint64 ref : object.refs)
                appendSized(ref, m_refSize);
            return;
        }
        const bool large = node.bytes.size() > LargePayload;
        if (!large) {
            m_current.append(encodeLeaf(node));
            return;
        }
        appendMarker(node.kind == QKPlistNode::Data ? 0x4 : 0x5, quint64(node.bytes.size()));
        m_written += quint64(m_current.size());
        m_pieces.append(m_current);
        for (qsizetype at = 0; at < node.bytes.size(); at += LargePayloadPiece)
            m_pieces.append(
                QByteArray::fromRawData(node.bytes.constData() + at, qMin(LargePayloadPiece, node.bytes.size() - at)));
        m_written += quint64(node.bytes.size());
        m_current = QByteArray();
    }

    static void appendMarkerTo(QByteArray &out, int type, quint64 count)
    {
        if (count < 15) {
            out.append(char((type << 4) | int(count)));
            return;
        }
        out.append(char((type << 4) | 0xF));
        const int size = bytesFor(count);
        out.append(char(0x10 | (size == 1 ? 0 : size == 2 ? 1 : size == 4 ? 2 : 3)));
        appendSizedTo(out, count, size);
    }

    void appendMarker(int type, quint64 count) { appendMarkerTo(m_current, type, count); }

    static void appendSizedTo(QByteArray &out, quint64 value, int size)
    {
        for (int shift = (size - 1) * 8; shift >= 0; shift -= 8)
            out.append(char(value >> shift));
    }

    void appendSized(quint64 value, int size) { appendSizedTo(m_current, value, size); }

    // A leaf object's bytes, which also identify it for sharing.
    static QByteArray encodeLeaf(const QKPlistNode &node)
    {
        QByteArray out;
        switch (node.kind) {
        case QKPlistNode::Bool:
            out.append(char(node.bits ? 0x09 : 0x08));
            break;
        case QKPlistNode::Integer: {
            // Negative numbers take eight bytes, as two's complement; others the fewest.
            const int size = qint64(node.bits) < 0 ? 8 : bytesFor(node.bits);
            out.append(char(0x10 | (size == 1 ? 0 : size == 2 ? 1 : size == 4 ? 2 : 3)));
            appendSizedTo(out, node.bits, size);
            break;
        }
        case QKPlistNode::Real:
            out.append(char(0x23));
            appendSizedTo(out, node.bits, 8);
            break;
        case QKPlistNode::String: {
            // libplist reads an ASCII string only up to its first NUL, a UTF-16 one whole.
            bool ascii = true;
            for (QChar c : node.text)
                ascii = ascii && c.unicode() != 0 && c.unicode() < 0x80;
            if (ascii) {
                appendMarkerTo(out, 0x5, quint64(node.text.size()));
                out.append(node.text.toLatin1());
            } else {
                appendMarkerTo(out, 0x6, quint64(node.text.size()));
                for (QChar c : node.text)
                    appendSizedTo(out, c.unicode(), 2);
            }
            break;
        }
        case QKPlistNode::ASCII:
            appendMarkerTo(out, 0x5, quint64(node.bytes.size()));
            out.append(node.bytes);
            break;
        case QKPlistNode::Data:
            appendMarkerTo(out, 0x4, quint64(node.bytes.size()));
            out.append(node.bytes);
            break;
        case QKPlistNode::UID: {
            const int size = bytesFor(node.bits);
            out.append(char(0x80 | (size - 1)));
            appendSizedTo(out, node.bits, size);
            break;
        }
        case QKPlistNode::Array:
        case QKPlistNode::Dict:
            break;
        }
        return out;
    }

    std::vector<Object> m_objects;
    std::deque<QKPlistNode> m_keys;
    QHash<QByteArray, quint64> m_shared;
    int m_refSize = 1;
    QList<QByteArray> m_pieces;
    QByteArray m_current;
    quint64 m_written = 0;
};

} // namespace

QKPlistNode QKPlistNode::real(double value)
{
    quint64 bits;
    std::memcpy(&bits, &value, sizeof bits);
    return {Real, bits, {}, {}, {}, {}};
}

QList<QByteArray> QKWriteBinaryPropertyList(const QKPlistNode &root)
{
    return Writer().write(root);
}
