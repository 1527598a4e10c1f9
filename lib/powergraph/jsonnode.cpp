#include "jsonnode.h"

#include "safetext.h"

#include <QHash>

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>

namespace {

/*
 * The bytes of the file as RapidJSON reads them. Our own stream type rather
 * than rapidjson::StringStream: the reader works on a local copy of a string
 * stream while it calls the handler, so the handler could not read the
 * offset of the token it is given; with a stream that is not copied, Tell()
 * is exact at every event. It also stops at the real end of the data, not at
 * the first NUL byte.
 */
class ByteStream
{
public:
    using Ch = char;

    ByteStream(const char* data, size_t size)
        : m_data(data)
        , m_size(size)
    {
    }

    Ch Peek() const { return m_offset < m_size ? m_data[m_offset] : '\0'; }
    Ch Take() { return m_offset < m_size ? m_data[m_offset++] : '\0'; }
    size_t Tell() const { return m_offset; }

    // Write side, required by the interface but never used by a reader.
    Ch* PutBegin() { return nullptr; }
    void Put(Ch) {}
    void Flush() {}
    size_t PutEnd(Ch*) { return 0; }

    const char* data() const { return m_data; }
    size_t size() const { return m_size; }

private:
    const char* m_data;
    size_t m_size;
    size_t m_offset = 0;
};

/*
 * Turns byte offsets into lines and columns. Offsets arrive in increasing
 * order while a file is read, so the cursor only moves forward and a whole
 * file costs one pass, even when it is written on a single line.
 */
class PlaceFinder
{
public:
    PlaceFinder(const char* data, size_t size)
        : m_data(data)
        , m_size(size)
    {
    }

    TextPlace placeOf(size_t offset)
    {
        if (offset > m_size)
            offset = m_size;
        if (offset < m_offset) {
            m_offset = 0;
            m_place = TextPlace{1, 1};
        }
        for (; m_offset < offset; ++m_offset) {
            const unsigned char byte = static_cast<unsigned char>(m_data[m_offset]);
            if (byte == '\n') {
                ++m_place.line;
                m_place.column = 1;
            } else if ((byte & 0xC0) != 0x80) {
                // UTF-8 continuation bytes belong to the character before.
                ++m_place.column;
            }
        }
        return m_place;
    }

private:
    const char* m_data;
    size_t m_size;
    size_t m_offset = 0;
    TextPlace m_place{1, 1};
};

/*
 * The keys of a file, each made into a QString once: a graph file repeats a
 * handful of keys ("name", "requires", "path", ...) for every entry, and a
 * shared copy costs no allocation. Keys beyond the first few dozen distinct
 * ones (paths in a platform map, say) are simply converted each time.
 */
class KeyTexts
{
public:
    QString text(const char* data, size_t length)
    {
        for (const auto& known : m_known) {
            if (known.first.size() == static_cast<int>(length) &&
                std::memcmp(known.first.constData(), data, length) == 0)
                return known.second;
        }
        const QString converted = QString::fromUtf8(data, static_cast<int>(length));
        if (m_known.size() < capacity)
            m_known.emplace_back(QByteArray(data, static_cast<int>(length)), converted);
        return converted;
    }

private:
    static constexpr size_t capacity = 48;
    std::vector<std::pair<QByteArray, QString>> m_known;
};

bool isNumberOrWordByte(char byte)
{
    return (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
           byte == '-' || byte == '+' || byte == '.';
}

// Builds the tree from the reader's events. Open containers wait on a stack
// and move into their parent when they close, so no pointer into a growing
// vector is ever kept.
class TreeBuilder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, TreeBuilder>
{
public:
    TreeBuilder(const ByteStream& stream, JsonNode* root)
        : m_stream(stream)
        , m_places(stream.data(), stream.size())
        , m_root(root)
    {
    }

    bool hasFailure() const { return !m_failure.message.isEmpty(); }
    const JsonNode::Failure& failure() const { return m_failure; }
    TextPlace placeOf(size_t offset) { return m_places.placeOf(offset); }

    bool Null() { return add(scalar(JsonNode::Null)); }
    bool Bool(bool value)
    {
        JsonNode node = scalar(JsonNode::Bool);
        node.boolean = value;
        return add(std::move(node));
    }
    bool Int(int value) { return Int64(value); }
    bool Uint(unsigned value) { return Int64(value); }
    bool Int64(int64_t value)
    {
        JsonNode node = scalar(JsonNode::Number);
        node.number = static_cast<double>(value);
        return add(std::move(node));
    }
    bool Uint64(uint64_t value)
    {
        if (value <= static_cast<uint64_t>(INT64_MAX))
            return Int64(static_cast<int64_t>(value));
        JsonNode node = scalar(JsonNode::Number);
        node.number = static_cast<double>(value);
        return add(std::move(node));
    }
    bool Double(double value)
    {
        JsonNode node = scalar(JsonNode::Number);
        node.number = value;
        return add(std::move(node));
    }
    bool String(const char* text, rapidjson::SizeType length, bool)
    {
        JsonNode node;
        node.kind = JsonNode::String;
        node.place = m_places.placeOf(stringStart());
        node.text = QString::fromUtf8(text, static_cast<int>(length));
        return add(std::move(node));
    }
    bool Key(const char* text, rapidjson::SizeType length, bool)
    {
        Open& object = m_open.back();
        object.key = m_keys.text(text, length);
        object.keyPlace = m_places.placeOf(stringStart());
        const TextPlace* first = object.find(object.key);
        if (first) {
            // Quoted as every text of the file is in a message: a key may
            // hold a newline, which must not start a line of its own.
            return fail(object.keyPlace, QStringLiteral("duplicate key %1 (first given at line %2, column %3)")
                                             .arg(SafeText::quoted(object.key), QString::number(first->line),
                                                  QString::number(first->column)));
        }
        return true;
    }
    bool StartObject() { return open(JsonNode::Object); }
    bool EndObject(rapidjson::SizeType) { return close(); }
    bool StartArray() { return open(JsonNode::Array); }
    bool EndArray(rapidjson::SizeType) { return close(); }

private:
    struct Open {
        JsonNode node;
        QString key;
        TextPlace keyPlace;
        // Keys seen so far: searched in the members while the object is
        // small, in a hash once it is large (a platform map may list many
        // paths).
        QHash<QString, int> index;

        const TextPlace* find(const QString& name)
        {
            constexpr size_t smallObject = 16;
            if (node.members.size() < smallObject) {
                for (const JsonMember& member : node.members) {
                    if (member.key == name)
                        return &member.place;
                }
                return nullptr;
            }
            if (index.isEmpty()) {
                for (size_t i = 0; i < node.members.size(); ++i)
                    index.insert(node.members[i].key, static_cast<int>(i));
            }
            const auto found = index.constFind(name);
            return found == index.constEnd() ? nullptr : &node.members[static_cast<size_t>(found.value())].place;
        }
    };

    JsonNode scalar(JsonNode::Kind kind)
    {
        size_t start = m_stream.Tell();
        while (start > 0 && isNumberOrWordByte(m_stream.data()[start - 1]))
            --start;
        JsonNode node;
        node.kind = kind;
        node.place = m_places.placeOf(start);
        return node;
    }

    // The opening quote of the string that ends just before the stream's
    // offset: the nearest quote before it that no backslash escapes.
    size_t stringStart() const
    {
        const char* data = m_stream.data();
        size_t quote = m_stream.Tell() - 1;
        while (quote > 0) {
            --quote;
            if (data[quote] != '"')
                continue;
            size_t backslashes = 0;
            while (quote > backslashes && data[quote - 1 - backslashes] == '\\')
                ++backslashes;
            if (backslashes % 2 == 0)
                return quote;
        }
        return 0;
    }

    bool open(JsonNode::Kind kind)
    {
        // The iterative reader calls before it takes the bracket.
        size_t offset = m_stream.Tell();
        const char opening = kind == JsonNode::Object ? '{' : '[';
        if (offset >= m_stream.size() || m_stream.data()[offset] != opening)
            --offset;
        const TextPlace place = m_places.placeOf(offset);
        if (static_cast<int>(m_open.size()) >= JsonNode::maximumDepth)
            return fail(place, QStringLiteral("nesting deeper than %1 levels").arg(JsonNode::maximumDepth));
        Open entry;
        entry.node.kind = kind;
        entry.node.place = place;
        m_open.push_back(std::move(entry));
        return true;
    }

    bool close()
    {
        JsonNode done = std::move(m_open.back().node);
        m_open.pop_back();
        return add(std::move(done));
    }

    bool add(JsonNode node)
    {
        if (m_open.empty()) {
            *m_root = std::move(node);
            return true;
        }
        Open& parent = m_open.back();
        if (parent.node.kind == JsonNode::Array) {
            parent.node.members.push_back(JsonMember{QString(), node.place, std::move(node)});
        } else {
            if (!parent.index.isEmpty())
                parent.index.insert(parent.key, static_cast<int>(parent.node.members.size()));
            parent.node.members.push_back(JsonMember{parent.key, parent.keyPlace, std::move(node)});
        }
        return true;
    }

    bool fail(const TextPlace& place, const QString& message)
    {
        m_failure = JsonNode::Failure{place, message};
        return false;
    }

    const ByteStream& m_stream;
    PlaceFinder m_places;
    KeyTexts m_keys;
    JsonNode* m_root;
    std::vector<Open> m_open;
    JsonNode::Failure m_failure;
};

} // namespace

bool JsonNode::parse(const QByteArray& json, JsonNode* root, Failure* failure)
{
    *root = JsonNode();
    ByteStream stream(json.constData(), static_cast<size_t>(json.size()));
    TreeBuilder builder(stream, root);
    rapidjson::Reader reader;
    // Iterative: a deeply nested file must not exhaust the call stack before
    // the depth limit can refuse it.
    constexpr unsigned flags = rapidjson::kParseValidateEncodingFlag | rapidjson::kParseIterativeFlag;
    const rapidjson::ParseResult result = reader.Parse<flags>(stream, builder);
    if (builder.hasFailure()) {
        *failure = builder.failure();
        return false;
    }
    if (result.IsError()) {
        *failure = Failure{
            builder.placeOf(result.Offset()),
            QStringLiteral("invalid JSON: %1").arg(QString::fromUtf8(rapidjson::GetParseError_En(result.Code())))};
        return false;
    }
    // The reader stops at a NUL byte as if the text ended there.
    if (stream.Tell() < stream.size()) {
        *failure =
            Failure{builder.placeOf(stream.Tell()), QStringLiteral("invalid JSON: unexpected data after the document")};
        return false;
    }
    return true;
}

const JsonNode& JsonNode::item(size_t index) const
{
    return members[index].value;
}

const JsonNode* JsonNode::member(QLatin1String key) const
{
    const JsonMember* entry = memberEntry(key);
    return entry ? &entry->value : nullptr;
}

const JsonMember* JsonNode::memberEntry(QLatin1String key) const
{
    for (const JsonMember& entry : members) {
        if (entry.key == key)
            return &entry;
    }
    return nullptr;
}

QVariant JsonNode::toVariant() const
{
    switch (kind) {
    case Null:
        return QVariant();
    case Bool:
        return QVariant(boolean);
    case Number:
        if (number == std::floor(number) && number >= INT32_MIN && number <= INT32_MAX)
            return QVariant(static_cast<int>(number));
        return QVariant(number);
    case String:
        return QVariant(text);
    case Array: {
        QVariantList list;
        for (const JsonMember& entry : members)
            list.append(entry.value.toVariant());
        return list;
    }
    case Object: {
        QVariantMap map;
        for (const JsonMember& entry : members)
            map.insert(entry.key, entry.value.toVariant());
        return map;
    }
    }
    return QVariant();
}

QString JsonNode::kindName(Kind kind)
{
    static const char* const names[] = {"null", "a boolean", "a number", "a string", "an array", "an object"};
    return QLatin1String(names[kind]);
}
