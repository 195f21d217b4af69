#include "QuillmereDesktop/common/WireCodec.h"
#include "support/QtPrinters.h"

#include <gtest/gtest.h>

namespace {

enum class Flavour { plain, spiced };

constexpr auto wireCases(Flavour) {
    return std::array{std::pair{Flavour::plain, "plain"}, std::pair{Flavour::spiced, "spiced"}};
}

struct Inner {
    QString label;
    friend bool operator==(const Inner&, const Inner&) = default;
    static constexpr auto wireFields() { return std::tuple{wire::field("label", &Inner::label)}; }
};

// One field of every kind the codec supports.
struct Sample {
    int count = 0;
    qint64 bigCount = 0;
    bool enabled = false;
    double ratio = 0;
    QString name;
    Flavour flavour = Flavour::plain;
    QDateTime when;
    QStringList tags;
    std::vector<Inner> inners;
    std::map<QString, int> scores;
    QJsonValue extra;
    std::optional<QString> note;
    std::optional<Inner> inner;

    friend bool operator==(const Sample&, const Sample&) = default;

    static constexpr auto wireFields() {
        return std::tuple{
            wire::field("count", &Sample::count),     wire::field("bigCount", &Sample::bigCount),
            wire::field("enabled", &Sample::enabled), wire::field("ratio", &Sample::ratio),
            wire::field("name", &Sample::name),       wire::field("flavour", &Sample::flavour),
            wire::field("when", &Sample::when),       wire::field("tags", &Sample::tags),
            wire::field("inners", &Sample::inners),   wire::field("scores", &Sample::scores),
            wire::field("extra", &Sample::extra),     wire::field("note", &Sample::note),
            wire::field("inner", &Sample::inner)};
    }
};

QJsonObject fullSample() {
    return QJsonObject{{"count", 3},
                       {"bigCount", 5000000000.0},
                       {"enabled", true},
                       {"ratio", 0.25},
                       {"name", "alpha"},
                       {"flavour", "spiced"},
                       {"when", "2026-01-31T09:30:00Z"},
                       {"tags", QJsonArray{"a", "b"}},
                       {"inners", QJsonArray{QJsonObject{{"label", "x"}}}},
                       {"scores", QJsonObject{{"k", 2}}},
                       {"extra", QJsonObject{{"anything", QJsonArray{1, "two"}}}},
                       {"note", "n"},
                       {"inner", QJsonObject{{"label", "y"}}}};
}

TEST(WireCodec, DecodesEveryKindOfField) {
    const auto decoded = wire::decode<Sample>(fullSample());
    ASSERT_TRUE(decoded.ok()) << decoded.error().message().toStdString();
    const Sample& s = decoded.value();
    EXPECT_EQ(s.count, 3);
    EXPECT_EQ(s.bigCount, 5000000000LL);
    EXPECT_TRUE(s.enabled);
    EXPECT_DOUBLE_EQ(s.ratio, 0.25);
    EXPECT_EQ(s.name, "alpha");
    EXPECT_EQ(s.flavour, Flavour::spiced);
    EXPECT_EQ(s.when, QDateTime(QDate(2026, 1, 31), QTime(9, 30), Qt::UTC));
    EXPECT_EQ(s.tags, (QStringList{"a", "b"}));
    ASSERT_EQ(s.inners.size(), 1u);
    EXPECT_EQ(s.inners[0].label, "x");
    EXPECT_EQ(s.scores.at("k"), 2);
    EXPECT_TRUE(s.extra.isObject());
    EXPECT_EQ(s.note, QString("n"));
    EXPECT_EQ(s.inner->label, "y");
}

TEST(WireCodec, EncodeThenDecodeGivesTheSameRecord) {
    const Sample original = wire::decode<Sample>(fullSample()).value();
    const auto again = wire::decodeJson<Sample>(wire::encodeJson(original));
    ASSERT_TRUE(again.ok());
    EXPECT_EQ(again.value(), original);
}

TEST(WireCodec, MissingRequiredKeyFailsNamingIt) {
    QJsonObject json = fullSample();
    json.remove("name");
    const auto decoded = wire::decode<Sample>(json);
    ASSERT_FALSE(decoded.ok());
    EXPECT_EQ(decoded.error().message(), "name: required key is missing");
}

TEST(WireCodec, NullForARequiredKeyIsAWrongType) {
    QJsonObject json = fullSample();
    json.insert("count", QJsonValue::Null);
    EXPECT_FALSE(wire::decode<Sample>(json).ok());
}

TEST(WireCodec, IntegersAreStrict) {
    QJsonObject json = fullSample();
    json.insert("count", 1.5);
    EXPECT_FALSE(wire::decode<Sample>(json).ok());
    json.insert("count", 3000000000.0); // beyond a 32-bit integer
    EXPECT_FALSE(wire::decode<Sample>(json).ok());
    json.insert("count", "3");
    EXPECT_FALSE(wire::decode<Sample>(json).ok());
    json.insert("count", -7);
    EXPECT_EQ(wire::decode<Sample>(json).value().count, -7);
}

TEST(WireCodec, StringsBooleansAndNumbersDoNotStandInForEachOther) {
    for (const auto& [key, wrong] : std::vector<std::pair<QString, QJsonValue>>{{"name", 5},
                                                                                {"enabled", 1},
                                                                                {"enabled", "true"},
                                                                                {"ratio", "0.5"},
                                                                                {"tags", "a"},
                                                                                {"inners", QJsonObject{}},
                                                                                {"scores", QJsonArray{}},
                                                                                {"inner", "y"}}) {
        QJsonObject json = fullSample();
        json.insert(key, wrong);
        EXPECT_FALSE(wire::decode<Sample>(json).ok()) << key.toStdString();
    }
}

TEST(WireCodec, OptionalsMayBeMissingOrNull) {
    QJsonObject json = fullSample();
    json.remove("note");
    json.insert("inner", QJsonValue::Null);
    const auto decoded = wire::decode<Sample>(json);
    ASSERT_TRUE(decoded.ok());
    EXPECT_FALSE(decoded.value().note.has_value());
    EXPECT_FALSE(decoded.value().inner.has_value());
}

TEST(WireCodec, AbsentOptionalsAreLeftOutWhenEncoding) {
    Sample s = wire::decode<Sample>(fullSample()).value();
    s.note.reset();
    s.inner.reset();
    const QJsonObject json = wire::encode(s).toObject();
    EXPECT_FALSE(json.contains("note"));
    EXPECT_FALSE(json.contains("inner"));
    EXPECT_TRUE(json.contains("name"));
}

TEST(WireCodec, UnknownKeysAreIgnored) {
    QJsonObject json = fullSample();
    json.insert("surprise", QJsonArray{1, 2});
    EXPECT_TRUE(wire::decode<Sample>(json).ok());
}

TEST(WireCodec, UnknownEnumerationValueFailsTheRecord) {
    QJsonObject json = fullSample();
    json.insert("flavour", "sour");
    const auto decoded = wire::decode<Sample>(json);
    ASSERT_FALSE(decoded.ok());
    EXPECT_EQ(decoded.error().path, "flavour");
}

TEST(WireCodec, ErrorPathsNameNestedPlaces) {
    QJsonObject json = fullSample();
    json.insert("inners", QJsonArray{QJsonObject{{"label", "ok"}}, QJsonObject{{"label", 4}}});
    const auto decoded = wire::decode<Sample>(json);
    ASSERT_FALSE(decoded.ok());
    EXPECT_EQ(decoded.error().path, "inners[1].label");
}

TEST(WireCodec, TextThatIsNotJsonFails) {
    EXPECT_FALSE(wire::decodeJson<Sample>("{not json").ok());
    EXPECT_FALSE(wire::decodeJson<Sample>("").ok());
    EXPECT_FALSE(wire::decodeJson<Sample>("[1,2]").ok());
}

TEST(WireCodec, DatesAreInternetDateTimesWithoutFractions) {
    QJsonObject json = fullSample();
    json.insert("when", "2026-01-31T10:30:00+01:00");
    EXPECT_EQ(wire::decode<Sample>(json).value().when, QDateTime(QDate(2026, 1, 31), QTime(9, 30), Qt::UTC));
    for (const char* bad : {"2026-01-31T09:30:00.5Z", "2026-01-31T09:30:00", "2026-01-31",
                            "2026-13-01T00:00:00Z", "yesterday", "2026-01-31 09:30:00Z"}) {
        json.insert("when", bad);
        EXPECT_FALSE(wire::decode<Sample>(json).ok()) << bad;
    }
    Sample s = wire::decode<Sample>(fullSample()).value();
    EXPECT_EQ(wire::encode(s).toObject().value("when").toString(), "2026-01-31T09:30:00Z");
}

struct CamelRecord {
    QString runId;
    std::optional<QString> myURLString;
    static constexpr auto wireFields() {
        return std::tuple{wire::field("runId", &CamelRecord::runId),
                          wire::field("myURLString", &CamelRecord::myURLString)};
    }
};

TEST(WireCodec, SnakeCaseOptionConvertsKeysBothWays) {
    const wire::Options snake{wire::KeyStyle::snakeCase};
    const auto decoded =
        wire::decode<CamelRecord>(QJsonObject{{"run_id", "r"}, {"my_url_string", "u"}}, snake);
    ASSERT_TRUE(decoded.ok());
    EXPECT_EQ(decoded.value().runId, "r");
    EXPECT_EQ(decoded.value().myURLString, QString("u"));
    const QJsonObject encoded = wire::encode(decoded.value(), snake).toObject();
    EXPECT_EQ(encoded.keys(), (QStringList{"my_url_string", "run_id"}));
    // Without the option, the declared names are the keys.
    EXPECT_FALSE(wire::decode<CamelRecord>(QJsonObject{{"run_id", "r"}}).ok());
}

TEST(WireKeys, SnakeCaseOfCamelCaseNames) {
    EXPECT_EQ(wire::toSnakeCase("id"), "id");
    EXPECT_EQ(wire::toSnakeCase("runId"), "run_id");
    EXPECT_EQ(wire::toSnakeCase("affectedResources"), "affected_resources");
    EXPECT_EQ(wire::toSnakeCase("spendDeltaPct"), "spend_delta_pct");
    EXPECT_EQ(wire::toSnakeCase("myURLString"), "my_url_string");
    EXPECT_EQ(wire::toSnakeCase("limit_usd"), "limit_usd");
}

TEST(WireEnums, RawValuesBothWays) {
    EXPECT_EQ(wire::rawValue(Flavour::spiced), "spiced");
    EXPECT_EQ(wire::fromRawValue<Flavour>("plain"), Flavour::plain);
    EXPECT_FALSE(wire::fromRawValue<Flavour>("Plain").has_value());
}

} // namespace
