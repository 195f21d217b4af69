#pragma once

// Usage classifiers as the relay keeps them: a person's taxonomy, the model that tags a
// sample of completed API generations with it, and the record of each tagging.

#include "QuillmereDesktop/common/WireCodec.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <map>
#include <optional>

struct ClassifierDimension {
    QString key;
    QString label;
    QStringList values;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("key", &ClassifierDimension::key),
                          wire::field("label", &ClassifierDimension::label),
                          wire::field("values", &ClassifierDimension::values)};
    }
    friend bool operator==(const ClassifierDimension&, const ClassifierDimension&) = default;
};

struct UsageClassifier {
    QString id;
    QString name;
    QString model;
    double sampling_rate = 0;
    QString prompt;
    QList<ClassifierDimension> dimensions;
    bool active = false;
    // Samples by status: "pending", "succeeded", "failed".
    std::map<QString, qint64> coverage;
    QString created_at;
    QString updated_at;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("id", &UsageClassifier::id),
                          wire::field("name", &UsageClassifier::name),
                          wire::field("model", &UsageClassifier::model),
                          wire::field("sampling_rate", &UsageClassifier::sampling_rate),
                          wire::field("prompt", &UsageClassifier::prompt),
                          wire::field("dimensions", &UsageClassifier::dimensions),
                          wire::field("active", &UsageClassifier::active),
                          wire::field("coverage", &UsageClassifier::coverage),
                          wire::field("created_at", &UsageClassifier::created_at),
                          wire::field("updated_at", &UsageClassifier::updated_at)};
    }
};

// The body that creates or replaces a classifier.
struct ClassifierInput {
    QString name;
    QString model;
    double sampling_rate = 1.0;
    QString prompt;
    QList<ClassifierDimension> dimensions;
    bool active = true;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("name", &ClassifierInput::name),
                          wire::field("model", &ClassifierInput::model),
                          wire::field("sampling_rate", &ClassifierInput::sampling_rate),
                          wire::field("prompt", &ClassifierInput::prompt),
                          wire::field("dimensions", &ClassifierInput::dimensions),
                          wire::field("active", &ClassifierInput::active)};
    }
};

// One sampled generation and what its classifier made of it: tags, or why none.
struct ClassificationActivity {
    QString id;
    QString generation_id;
    QString classifier_id;
    QString classifier_name;
    QString status;
    std::map<QString, QString> tags;
    std::optional<QString> error_code;
    std::optional<QString> model_id;
    std::optional<QString> provider;
    QString created_at;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("id", &ClassificationActivity::id),
                          wire::field("generation_id", &ClassificationActivity::generation_id),
                          wire::field("classifier_id", &ClassificationActivity::classifier_id),
                          wire::field("classifier_name", &ClassificationActivity::classifier_name),
                          wire::field("status", &ClassificationActivity::status),
                          wire::field("tags", &ClassificationActivity::tags),
                          wire::field("error_code", &ClassificationActivity::error_code),
                          wire::field("model_id", &ClassificationActivity::model_id),
                          wire::field("provider", &ClassificationActivity::provider),
                          wire::field("created_at", &ClassificationActivity::created_at)};
    }
};

struct ClassifierListEnvelope {
    QList<UsageClassifier> data;
    static constexpr auto wireFields() {
        return std::tuple{wire::field("data", &ClassifierListEnvelope::data)};
    }
};

struct ClassifierEnvelope {
    UsageClassifier data;
    static constexpr auto wireFields() { return std::tuple{wire::field("data", &ClassifierEnvelope::data)}; }
};
