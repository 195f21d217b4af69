#include "QuillmereDesktop/routing/PresetForm.h"
#include "support/QtPrinters.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

namespace {

PresetForm valid() {
    PresetForm form;
    form.slug = "reviewer";
    form.model = "fast";
    return form;
}

QJsonObject encoded(const PresetCaptureInput& input) {
    return QJsonDocument::fromJson(wire::encodeJson(input)).object();
}

} // namespace

TEST(PresetForm, SlugsAreCheckedAfterTrimmingAndLowerCasing) {
    PresetForm form = valid();
    form.slug = "Code Reviewer";
    EXPECT_EQ(presetform::validate(form), presetform::slugMessage);
    form.slug = " Code-Reviewer ";
    EXPECT_EQ(presetform::validate(form), std::nullopt);
    EXPECT_EQ(presetform::normalisedSlug(form.slug), QStringLiteral("code-reviewer"));
    form.slug = QString(64, 'a');
    EXPECT_EQ(presetform::validate(form), std::nullopt);
    form.slug = QString(65, 'a');
    EXPECT_EQ(presetform::validate(form), presetform::slugMessage);
    form.slug = "-lead";
    EXPECT_EQ(presetform::validate(form), presetform::slugMessage);
}

TEST(PresetForm, ValidationStopsAtTheFirstFailureInOrder) {
    PresetForm form;
    form.slug = "Bad Slug";
    form.maxTokens = "many";
    EXPECT_EQ(presetform::validate(form), presetform::slugMessage);
    form.slug = "ok";
    EXPECT_EQ(presetform::validate(form), presetform::modelMessage);
    form.model = "fast";
    EXPECT_EQ(presetform::validate(form), presetform::numbersMessage);
    form.maxTokens = "4096";
    form.temperature = "warm";
    EXPECT_EQ(presetform::validate(form), presetform::numbersMessage);
    form.temperature = "0.5";
    form.topP = "1.5x";
    EXPECT_EQ(presetform::validate(form), presetform::numbersMessage);
    form.topP = "";
    EXPECT_EQ(presetform::validate(form), std::nullopt);
}

TEST(PresetForm, FallbacksDropEmptyParts) {
    PresetForm form = valid();
    form.fallbacks = ",,a, ,b,";
    EXPECT_EQ(presetform::captureInput(form, std::nullopt).models, (QStringList{"fast", "a", "b"}));
    form.fallbacks = " , ";
    EXPECT_EQ(presetform::captureInput(form, std::nullopt).models, std::nullopt);
}

TEST(PresetForm, ClearingTheTemperatureOnAnEditSendsItInTheClearList) {
    PresetForm form = valid();
    form.maxTokens = "4096";
    form.topP = "0.9";
    form.providerSort = "price";
    form.responseFormat = "json_object";
    form.responseHealing = true;
    const QJsonObject body = encoded(presetform::captureInput(form, 3));
    EXPECT_EQ(body.value("quillmere_base_version").toInt(), 3);
    EXPECT_EQ(body.value("quillmere_clear_fields").toArray(), QJsonArray{"temperature"});
    EXPECT_EQ(body.value("max_tokens").toInt(), 4096);
    EXPECT_EQ(body.value("provider").toObject().value("sort").toString(), QStringLiteral("price"));
    EXPECT_EQ(body.value("plugins").toArray(), (QJsonArray{QJsonObject{{"id", "response-healing"}}}));
}

TEST(PresetForm, ANewPresetSendsDefaultsAsAbsentAndClearsEverything) {
    PresetForm form = valid();
    form.responseHealing = true; // dropped: nothing to heal in plain text
    const QJsonObject body = encoded(presetform::captureInput(form, std::nullopt));
    EXPECT_EQ(body.value("model").toString(), QStringLiteral("fast"));
    for (const char* absent : {"models", "service_tier", "max_tokens", "temperature", "top_p", "provider",
                               "plugins", "response_format", "quillmere_base_version"})
        EXPECT_FALSE(body.contains(QLatin1String(absent))) << absent;
    EXPECT_EQ(body.value("messages").toArray(), QJsonArray{});
    EXPECT_EQ(body.value("quillmere_clear_fields").toArray(),
              (QJsonArray{"max_output_tokens", "temperature", "top_p", "provider.sort", "response_format",
                          "plugins"}));
    form.systemPrompt = "  Review carefully.\n";
    EXPECT_EQ(encoded(presetform::captureInput(form, std::nullopt)).value("messages").toArray(),
              (QJsonArray{QJsonObject{{"role", "system"}, {"content", "Review carefully."}}}));
}

TEST(PresetForm, AStoredSortGivenAsAnObjectReadsAsItsByEntry) {
    const QByteArray json =
        R"({"data":{"id":"p","name":"r","slug":"r","status":"active","designated_version_id":"v",
        "created_at":"t","updated_at":"t","versions":[],"designated_version":{"id":"v","version":2,
        "system_prompt":"Be brief.","created_at":"t","updated_at":"t","config":{"model":"fast",
        "models":["fast","slow"],"provider":{"sort":{"by":"latency"}},"temperature":0.2,
        "plugins":[{"id":"context-compression"}]}}}})";
    const auto decoded = wire::decodeJson<PresetEnvelope>(json);
    ASSERT_TRUE(decoded) << decoded.error().message().toStdString();
    const PresetForm form = presetform::start(decoded.value().data, {});
    EXPECT_EQ(form.providerSort, QStringLiteral("latency"));
    EXPECT_EQ(form.fallbacks, QStringLiteral("slow"));
    EXPECT_EQ(form.temperature, QStringLiteral("0.2"));
    EXPECT_TRUE(form.contextCompression);
    EXPECT_FALSE(form.responseHealing);
    EXPECT_EQ(form.systemPrompt, QStringLiteral("Be brief."));
    const auto withoutBy = wire::decodeJson<PresetStoredProvider>(R"({"sort":{"partition":"none"}})");
    ASSERT_TRUE(withoutBy);
    EXPECT_EQ(withoutBy.value().sort->value, QStringLiteral("balanced"));
    EXPECT_EQ(presetform::start(std::nullopt, {"m1", "m2"}).model, QStringLiteral("m1"));
    EXPECT_EQ(presetform::reference("code-reviewer"), QStringLiteral("@PRESET/CODE-REVIEWER"));
}
