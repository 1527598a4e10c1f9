#ifndef VELA_POWERGRAPH_JSONNODE_H
#define VELA_POWERGRAPH_JSONNODE_H

#include <QByteArray>
#include <QString>
#include <QVariant>

#include <vector>

// A place in a text file, both counted from 1. The column counts characters,
// not bytes, so that it matches what an editor shows.
struct TextPlace {
    int line = 0;
    int column = 0;
};

struct JsonMember;

/*
 * A JSON value read with the place where it starts, so that every message
 * about a graph file can point into it:
 *
 *   JsonNode root;
 *   JsonNode::Failure failure;
 *   if (!JsonNode::parse(bytes, &root, &failure))
 *       qWarning() << failure.place.line << failure.place.column << failure.message;
 *
 * Unlike QJsonDocument it refuses an object that has the same key twice
 * (a silently dropped key is how a graph file says something its author
 * never meant), keeps the members of an object in file order, and refuses
 * nesting deeper than maximumDepth.
 */
class JsonNode
{
public:
    enum Kind : unsigned char { Null, Bool, Number, String, Array, Object };

    struct Failure {
        TextPlace place;
        QString message;
    };

    static constexpr int maximumDepth = 64;

    static bool parse(const QByteArray& json, JsonNode* root, Failure* failure);

    // Kept small: a large file holds millions of these.
    Kind kind = Null;
    bool boolean = false;
    TextPlace place;
    double number = 0.0;
    QString text;
    // An object's members in file order; an array's items are members
    // without a key.
    std::vector<JsonMember> members;

    const JsonNode& item(size_t index) const;
    // The member named `key`, or null.
    const JsonNode* member(QLatin1String key) const;
    const JsonMember* memberEntry(QLatin1String key) const;
    QVariant toVariant() const;
    // "an object", "a string", ...: for messages about the wrong kind.
    static QString kindName(Kind kind);
};

struct JsonMember {
    QString key;
    TextPlace place;
    JsonNode value;
};

#endif
