#pragma once

// The one JSON codec of every record that crosses the wire or lands on disk.
//
// A record declares its fields once, beside the struct:
//
//     struct Usage {
//         int limitPct = 0;
//         static constexpr auto wireFields() {
//             return std::tuple{wire::field("limitPct", &Usage::limitPct)};
//         }
//     };
//
// and `wire::decode<Usage>` / `wire::encode` read and write it by these rules: required
// fields must be present with the right JSON type (an integer field refuses 1.5, a string
// field refuses a number), `std::optional` fields may be missing or null, absent optionals
// are left out when encoding, unknown keys are ignored. Keys are the declared names, or
// their snake_case form when the options ask for it (the queue's convention).

#include "QuillmereDesktop/common/Result.h"
#include "QuillmereDesktop/common/WireKeys.h"

#include <QByteArray>
#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

#include <array>
#include <cmath>
#include <concepts>
#include <limits>
#include <map>
#include <optional>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace wire {

enum class KeyStyle {
    asDeclared, // the field name is the wire key (relay records use their wire spelling)
    snakeCase,  // camelCase field names become snake_case keys (the queue's records)
};

struct Options {
    KeyStyle keys = KeyStyle::asDeclared;
};

// Where decoding failed and why, e.g. "interrupts[0].raised_at: expected an ISO 8601 date".
struct DecodeError {
    QString path;
    QString problem;
    QString message() const { return path.isEmpty() ? problem : path + QStringLiteral(": ") + problem; }
};

template <class T> using Decoded = Result<T, DecodeError>;

// One declared field: its name and the member it reads and writes.
template <class Record, class Member> struct Field {
    const char* name;
    Member Record::*member;
};

template <class Record, class Member>
constexpr Field<Record, Member> field(const char* name, Member Record::*member) {
    return {name, member};
}

template <class T>
concept Record = requires {
    T::wireFields();
};

// An enumeration with string raw values declares them through a free function found by
// argument-dependent lookup: `constexpr auto wireCases(InterruptKind) { return std::array{...}; }`
template <class T>
concept StringEnum = std::is_enum_v<T> && requires(T v) {
    wireCases(v);
};

// The raw string of an enumeration case, as it stands on the wire and on screen.
template <StringEnum E> QString rawValue(E value) {
    for (const auto& [c, name] : wireCases(E{}))
        if (c == value)
            return QString::fromUtf8(name);
    return {};
}

// The case whose raw value is `text`, or nothing for an unknown string.
template <StringEnum E> std::optional<E> fromRawValue(const QString& text) {
    for (const auto& [c, name] : wireCases(E{}))
        if (text == QLatin1String(name))
            return c;
    return std::nullopt;
}

template <class T> struct ValueCodec; // specialised below for every supported type

namespace detail {

inline DecodeError mismatch(const char* expected) {
    return {QString(), QStringLiteral("expected %1").arg(QLatin1String(expected))};
}

// Prefixes the error's path with the key or index it happened under.
inline DecodeError within(DecodeError error, const QString& step) {
    if (error.path.isEmpty())
        error.path = step;
    else if (error.path.startsWith(QLatin1Char('[')))
        error.path = step + error.path;
    else
        error.path = step + QLatin1Char('.') + error.path;
    return error;
}

template <std::integral I> Decoded<I> decodeInteger(const QJsonValue& json) {
    if (!json.isDouble())
        return mismatch("an integer");
    const double number = json.toDouble();
    // A strict decoder refuses 1.5 for an integer, and a value its type cannot hold.
    if (std::trunc(number) != number || number < double(std::numeric_limits<I>::min()) ||
        number > double(std::numeric_limits<I>::max()))
        return mismatch("an integer in range");
    return static_cast<I>(number);
}

template <class T> struct IsOptional : std::false_type {};
template <class T> struct IsOptional<std::optional<T>> : std::true_type {};

} // namespace detail

template <std::integral I>
requires(!std::same_as<I, bool>) struct ValueCodec<I> {
    static Decoded<I> decode(const QJsonValue& json, const Options&) {
        return detail::decodeInteger<I>(json);
    }
    static QJsonValue encode(I value, const Options&) { return QJsonValue(static_cast<qint64>(value)); }
};

template <> struct ValueCodec<bool> {
    static Decoded<bool> decode(const QJsonValue& json, const Options&) {
        if (!json.isBool())
            return detail::mismatch("a boolean");
        return json.toBool();
    }
    static QJsonValue encode(bool value, const Options&) { return value; }
};

template <> struct ValueCodec<double> {
    static Decoded<double> decode(const QJsonValue& json, const Options&) {
        if (!json.isDouble())
            return detail::mismatch("a number");
        return json.toDouble();
    }
    static QJsonValue encode(double value, const Options&) { return value; }
};

template <> struct ValueCodec<QString> {
    static Decoded<QString> decode(const QJsonValue& json, const Options&) {
        if (!json.isString())
            return detail::mismatch("a string");
        return json.toString();
    }
    static QJsonValue encode(const QString& value, const Options&) { return value; }
};

// Dates travel as ISO 8601 internet date-times with a zone and without fractional seconds.
template <> struct ValueCodec<QDateTime> {
    static Decoded<QDateTime> decode(const QJsonValue& json, const Options&);
    static QJsonValue encode(const QDateTime& value, const Options&);
};

// Free-form JSON kept as it came, for fields whose shape belongs to someone else.
template <> struct ValueCodec<QJsonValue> {
    static Decoded<QJsonValue> decode(const QJsonValue& json, const Options&) { return json; }
    static QJsonValue encode(const QJsonValue& value, const Options&) { return value; }
};

template <> struct ValueCodec<QJsonObject> {
    static Decoded<QJsonObject> decode(const QJsonValue& json, const Options&) {
        if (!json.isObject())
            return detail::mismatch("an object");
        return json.toObject();
    }
    static QJsonValue encode(const QJsonObject& value, const Options&) { return value; }
};

template <StringEnum E> struct ValueCodec<E> {
    static Decoded<E> decode(const QJsonValue& json, const Options&) {
        if (!json.isString())
            return detail::mismatch("a string");
        if (auto value = fromRawValue<E>(json.toString()))
            return *value;
        return DecodeError{QString(), QStringLiteral("unknown value \"%1\"").arg(json.toString())};
    }
    static QJsonValue encode(E value, const Options&) { return rawValue(value); }
};

namespace detail {

template <class List> Decoded<List> decodeList(const QJsonValue& json, const Options& options) {
    using Element = typename List::value_type;
    if (!json.isArray())
        return mismatch("an array");
    const QJsonArray array = json.toArray();
    List list;
    list.reserve(array.size());
    for (qsizetype i = 0; i < array.size(); ++i) {
        auto element = ValueCodec<Element>::decode(array.at(i), options);
        if (!element)
            return within(element.error(), QStringLiteral("[%1]").arg(i));
        list.push_back(std::move(element).value());
    }
    return list;
}

template <class List> QJsonValue encodeList(const List& list, const Options& options) {
    QJsonArray array;
    for (const auto& element : list)
        array.append(ValueCodec<typename List::value_type>::encode(element, options));
    return array;
}

template <class Map> Decoded<Map> decodeMap(const QJsonValue& json, const Options& options) {
    using Element = typename Map::mapped_type;
    if (!json.isObject())
        return mismatch("an object");
    const QJsonObject object = json.toObject();
    Map map;
    for (auto it = object.begin(); it != object.end(); ++it) {
        auto element = ValueCodec<Element>::decode(it.value(), options);
        if (!element)
            return within(element.error(), it.key());
        map.insert_or_assign(it.key(), std::move(element).value());
    }
    return map;
}

template <class Map> QJsonValue encodeMap(const Map& map, const Options& options) {
    QJsonObject object;
    for (const auto& [key, value] : map)
        object.insert(key, ValueCodec<typename Map::mapped_type>::encode(value, options));
    return object;
}

} // namespace detail

template <class T> struct ValueCodec<QList<T>> {
    static Decoded<QList<T>> decode(const QJsonValue& json, const Options& o) {
        return detail::decodeList<QList<T>>(json, o);
    }
    static QJsonValue encode(const QList<T>& value, const Options& o) { return detail::encodeList(value, o); }
};

template <class T> struct ValueCodec<std::vector<T>> {
    static Decoded<std::vector<T>> decode(const QJsonValue& json, const Options& o) {
        return detail::decodeList<std::vector<T>>(json, o);
    }
    static QJsonValue encode(const std::vector<T>& value, const Options& o) {
        return detail::encodeList(value, o);
    }
};

template <class T> struct ValueCodec<std::map<QString, T>> {
    static Decoded<std::map<QString, T>> decode(const QJsonValue& json, const Options& o) {
        return detail::decodeMap<std::map<QString, T>>(json, o);
    }
    static QJsonValue encode(const std::map<QString, T>& value, const Options& o) {
        return detail::encodeMap(value, o);
    }
};

template <Record R> struct ValueCodec<R> {
    static Decoded<R> decode(const QJsonValue& json, const Options& options) {
        if (!json.isObject())
            return detail::mismatch("an object");
        const QJsonObject object = json.toObject();
        R record{};
        std::optional<DecodeError> failure;
        std::apply(
            [&](const auto&... fields) { (decodeField(object, options, record, fields, failure) && ...); },
            R::wireFields());
        if (failure)
            return *failure;
        return record;
    }

    static QJsonValue encode(const R& record, const Options& options) {
        QJsonObject object;
        std::apply([&](const auto&... fields) { (encodeField(object, options, record, fields), ...); },
                   R::wireFields());
        return object;
    }

private:
    // Decodes one field into `record`; on failure records why and stops the fold.
    template <class Member>
    static bool decodeField(const QJsonObject& object, const Options& options, R& record,
                            const Field<R, Member>& f, std::optional<DecodeError>& failure) {
        const QString key = wireKey(f.name, options.keys);
        const QJsonValue json = object.value(key);
        if constexpr (detail::IsOptional<Member>::value) {
            // Missing and null both mean the absent value.
            if (json.isUndefined() || json.isNull()) {
                record.*(f.member) = std::nullopt;
                return true;
            }
            auto value = ValueCodec<typename Member::value_type>::decode(json, options);
            if (!value) {
                failure = detail::within(value.error(), key);
                return false;
            }
            record.*(f.member) = std::move(value).value();
            return true;
        } else {
            if (json.isUndefined()) {
                failure = DecodeError{key, QStringLiteral("required key is missing")};
                return false;
            }
            auto value = ValueCodec<Member>::decode(json, options);
            if (!value) {
                failure = detail::within(value.error(), key);
                return false;
            }
            record.*(f.member) = std::move(value).value();
            return true;
        }
    }

    template <class Member>
    static void encodeField(QJsonObject& object, const Options& options, const R& record,
                            const Field<R, Member>& f) {
        const QString key = wireKey(f.name, options.keys);
        if constexpr (detail::IsOptional<Member>::value) {
            // Absent optionals are left out rather than written as null.
            if (const auto& value = record.*(f.member))
                object.insert(key, ValueCodec<typename Member::value_type>::encode(*value, options));
        } else {
            object.insert(key, ValueCodec<Member>::encode(record.*(f.member), options));
        }
    }

    static QString wireKey(const char* name, KeyStyle style) {
        const QString declared = QString::fromLatin1(name);
        return style == KeyStyle::snakeCase ? toSnakeCase(declared) : declared;
    }
};

// Decodes a value of type T from a JSON value.
template <class T> Decoded<T> decode(const QJsonValue& json, const Options& options = {}) {
    return ValueCodec<T>::decode(json, options);
}

// Decodes a value of type T from JSON text; text that is not JSON fails like a bad value.
template <class T> Decoded<T> decodeJson(const QByteArray& text, const Options& options = {}) {
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(text, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        return DecodeError{QString(), QStringLiteral("not JSON (%1)").arg(parseError.errorString())};
    const QJsonValue root = document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object());
    return decode<T>(root, options);
}

template <class T> QJsonValue encode(const T& value, const Options& options = {}) {
    return ValueCodec<T>::encode(value, options);
}

// Encodes an object or array record as compact JSON text.
template <class T> QByteArray encodeJson(const T& value, const Options& options = {}) {
    const QJsonValue json = encode(value, options);
    const QJsonDocument document =
        json.isArray() ? QJsonDocument(json.toArray()) : QJsonDocument(json.toObject());
    return document.toJson(QJsonDocument::Compact);
}

} // namespace wire
