#pragma once

#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/routing/RouterRecords.h"

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>
#include <qcoro/qcorotask.h>

#include <map>
#include <optional>

// The preview form as the person filled it in; every number is still text.
struct RoutePreviewForm {
    QString task = QStringLiteral("code");
    QString channel = QStringLiteral("any");
    QString inputTokens = QStringLiteral("8000");
    QString outputTokens = QStringLiteral("2000");
    QString latencyBudget;
    QString providerSort = QStringLiteral("router");
    QString sortPartition = QStringLiteral("model");
    QString preferredLatency;
    QString preferredThroughput;
    bool previewToolCall = false;
    // The policy half of the screen, saved by every preview.
    QString strategy = QStringLiteral("balanced");
    QString maxCost;
    bool fallbackEnabled = true;
    int maxFallbacks = 2;
};

// What the smart suggestions are computed from: the screen's last loaded state.
struct RoutingFigures {
    QList<RouterModel> models;
    std::map<QString, double> providerHealth;
    std::map<QString, ModelPerformance> modelPerformance;
    std::map<QString, ToolCallQuality> toolCallQuality;
    std::optional<RouterUsage> usage;
    QList<RouterBudget> budgets;
};

// The model router console: the lanes the relay holds, a route preview that saves the
// policy first, usage, the ledger of recent generations, hard budgets and the smart
// suggestions drawn from them. The relay routes and enforces; this only shows and asks.
class RoutingViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(AuthStore* auth READ auth WRITE setAuth NOTIFY authChanged)
    // The form.
    Q_PROPERTY(QString task READ task WRITE setTask NOTIFY formChanged)
    Q_PROPERTY(QString channel READ channel WRITE setChannel NOTIFY formChanged)
    Q_PROPERTY(QString inputTokens READ inputTokens WRITE setInputTokens NOTIFY formChanged)
    Q_PROPERTY(QString outputTokens READ outputTokens WRITE setOutputTokens NOTIFY formChanged)
    Q_PROPERTY(QString latencyBudget READ latencyBudget WRITE setLatencyBudget NOTIFY formChanged)
    Q_PROPERTY(QString providerSort READ providerSort WRITE setProviderSort NOTIFY formChanged)
    Q_PROPERTY(QString sortPartition READ sortPartition WRITE setSortPartition NOTIFY formChanged)
    Q_PROPERTY(QString preferredLatency READ preferredLatency WRITE setPreferredLatency NOTIFY formChanged)
    Q_PROPERTY(
        QString preferredThroughput READ preferredThroughput WRITE setPreferredThroughput NOTIFY formChanged)
    Q_PROPERTY(bool previewToolCall READ previewToolCall WRITE setPreviewToolCall NOTIFY formChanged)
    Q_PROPERTY(QString strategy READ strategy WRITE setStrategy NOTIFY formChanged)
    Q_PROPERTY(QString maxCost READ maxCost WRITE setMaxCost NOTIFY formChanged)
    Q_PROPERTY(bool fallbackEnabled READ fallbackEnabled WRITE setFallbackEnabled NOTIFY formChanged)
    Q_PROPERTY(int maxFallbacks READ maxFallbacks WRITE setMaxFallbacks NOTIFY formChanged)
    Q_PROPERTY(QString budgetPeriod READ budgetPeriod WRITE setBudgetPeriod NOTIFY formChanged)
    Q_PROPERTY(QString budgetLimit READ budgetLimit WRITE setBudgetLimit NOTIFY formChanged)
    Q_PROPERTY(bool showsPartition READ showsPartition NOTIFY formChanged)
    Q_PROPERTY(bool showsToolToggle READ showsToolToggle NOTIFY formChanged)
    Q_PROPERTY(QString maxFallbacksText READ maxFallbacksText NOTIFY formChanged)
    // Work under way and its failure.
    Q_PROPERTY(bool isLoading READ isLoading NOTIFY busyChanged)
    Q_PROPERTY(bool isPreviewing READ isPreviewing NOTIFY busyChanged)
    Q_PROPERTY(bool isSavingBudget READ isSavingBudget NOTIFY busyChanged)
    Q_PROPERTY(QString previewButtonLabel READ previewButtonLabel NOTIFY busyChanged)
    Q_PROPERTY(QString budgetButtonLabel READ budgetButtonLabel NOTIFY busyChanged)
    Q_PROPERTY(QString errorMessage READ errorMessage NOTIFY errorChanged)
    Q_PROPERTY(QString errorText READ errorText NOTIFY errorChanged)
    // What was loaded, as the screen shows it.
    Q_PROPERTY(QString lanesHeader READ lanesHeader NOTIFY dataChanged)
    Q_PROPERTY(QVariantList lanes READ lanes NOTIFY dataChanged)
    Q_PROPERTY(QVariantList metrics READ metrics NOTIFY dataChanged)
    Q_PROPERTY(QStringList suggestions READ suggestions NOTIFY dataChanged)
    Q_PROPERTY(QVariantList budgetRows READ budgetRows NOTIFY dataChanged)
    Q_PROPERTY(QVariantList generationRows READ generationRows NOTIFY dataChanged)
    Q_PROPERTY(QVariantList usageRows READ usageRows NOTIFY dataChanged)
    Q_PROPERTY(bool hasDecision READ hasDecision NOTIFY decisionChanged)
    Q_PROPERTY(QVariantList decisionCards READ decisionCards NOTIFY decisionChanged)
    Q_PROPERTY(QString routedBecause READ routedBecause NOTIFY decisionChanged)
    Q_PROPERTY(QString rejectedHeader READ rejectedHeader NOTIFY decisionChanged)
    Q_PROPERTY(QStringList rejectedRows READ rejectedRows NOTIFY decisionChanged)
    // Fixed texts and choices.
    Q_PROPERTY(QStringList tasks READ tasks CONSTANT)
    Q_PROPERTY(QStringList channels READ channels CONSTANT)
    Q_PROPERTY(QStringList providerSorts READ providerSorts CONSTANT)
    Q_PROPERTY(QStringList partitions READ partitions CONSTANT)
    Q_PROPERTY(QStringList strategies READ strategies CONSTANT)
    Q_PROPERTY(QStringList budgetPeriods READ budgetPeriods CONSTANT)
    Q_PROPERTY(QVariantMap labels READ labels CONSTANT)

public:
    static const QStringList& tasks();
    static const QStringList& channels();
    static const QStringList& providerSorts();
    static const QStringList& partitions();
    static const QStringList& strategies();
    static const QStringList& budgetPeriods();
    static QVariantMap labels();

    static inline const QString tokensMessage =
        QStringLiteral("Token estimates must be non-negative whole numbers.");
    static inline const QString latencyNumberMessage =
        QStringLiteral("Preferred latency must be a number of seconds or blank.");
    static inline const QString throughputNumberMessage =
        QStringLiteral("Preferred throughput must be tokens per second or blank.");
    static inline const QString latencyRangeMessage =
        QStringLiteral("Preferred latency must be non-negative seconds or blank.");
    static inline const QString throughputRangeMessage =
        QStringLiteral("Preferred throughput must be non-negative tokens per second or blank.");
    static inline const QString budgetMessage = QStringLiteral("Budget must be a positive dollar amount.");

    explicit RoutingViewModel(QObject* parent = nullptr);

    AuthStore* auth() const { return m_auth; }
    void setAuth(AuthStore* auth);

    // The pure rules, for tests and for the actions below.
    // A base-10 whole number with an optional sign ("+5" is 5); nothing for anything else.
    static std::optional<qint64> wholeNumber(const QString& text);
    // A decimal number, "inf" and "nan" included; nothing for anything else.
    static std::optional<double> number(const QString& text);
    // The first failure of the preview's validation, in its fixed order, or nothing.
    static std::optional<QString> validate(const RoutePreviewForm& form);
    // The policy the preview saves: the form, with no allowed providers.
    static RouterPolicy policyOf(const RoutePreviewForm& form);
    // The preview request; only call for a form that validates.
    static RoutePreviewInput previewInputOf(const RoutePreviewForm& form);
    // The suggestions, in rule order, at most one per rule.
    static QStringList suggestionsFor(const RoutingFigures& figures);
    static QString performanceText(const ModelPerformance& performance);
    static QString toolQualityText(const ToolCallQuality& quality);
    // A fraction as a whole percentage, cut towards zero.
    static qint64 percent(double fraction);

    const RoutePreviewForm& form() const { return m_form; }
    const RoutingFigures& figures() const { return m_figures; }
    const QList<RouterGeneration>& generations() const { return m_generations; }
    const std::optional<RouteDecision>& decision() const { return m_decision; }

    QString task() const { return m_form.task; }
    void setTask(const QString& value) { change(m_form.task, value); }
    QString channel() const { return m_form.channel; }
    void setChannel(const QString& value) { change(m_form.channel, value); }
    QString inputTokens() const { return m_form.inputTokens; }
    void setInputTokens(const QString& value) { change(m_form.inputTokens, value); }
    QString outputTokens() const { return m_form.outputTokens; }
    void setOutputTokens(const QString& value) { change(m_form.outputTokens, value); }
    QString latencyBudget() const { return m_form.latencyBudget; }
    void setLatencyBudget(const QString& value) { change(m_form.latencyBudget, value); }
    QString providerSort() const { return m_form.providerSort; }
    void setProviderSort(const QString& value) { change(m_form.providerSort, value); }
    QString sortPartition() const { return m_form.sortPartition; }
    void setSortPartition(const QString& value) { change(m_form.sortPartition, value); }
    QString preferredLatency() const { return m_form.preferredLatency; }
    void setPreferredLatency(const QString& value) { change(m_form.preferredLatency, value); }
    QString preferredThroughput() const { return m_form.preferredThroughput; }
    void setPreferredThroughput(const QString& value) { change(m_form.preferredThroughput, value); }
    bool previewToolCall() const { return m_form.previewToolCall; }
    void setPreviewToolCall(bool value) { change(m_form.previewToolCall, value); }
    QString strategy() const { return m_form.strategy; }
    void setStrategy(const QString& value) { change(m_form.strategy, value); }
    QString maxCost() const { return m_form.maxCost; }
    void setMaxCost(const QString& value) { change(m_form.maxCost, value); }
    bool fallbackEnabled() const { return m_form.fallbackEnabled; }
    void setFallbackEnabled(bool value) { change(m_form.fallbackEnabled, value); }
    int maxFallbacks() const { return m_form.maxFallbacks; }
    void setMaxFallbacks(int value) { change(m_form.maxFallbacks, value); }
    QString budgetPeriod() const { return m_budgetPeriod; }
    void setBudgetPeriod(const QString& value) { change(m_budgetPeriod, value); }
    QString budgetLimit() const { return m_budgetLimit; }
    void setBudgetLimit(const QString& value) { change(m_budgetLimit, value); }
    bool showsPartition() const { return m_form.providerSort != QLatin1String("router"); }
    bool showsToolToggle() const { return m_form.channel != QLatin1String("cli"); }
    QString maxFallbacksText() const { return QString::number(m_form.maxFallbacks) + QStringLiteral(" MAX"); }

    bool isLoading() const { return m_isLoading; }
    bool isPreviewing() const { return m_isPreviewing; }
    bool isSavingBudget() const { return m_isSavingBudget; }
    QString previewButtonLabel() const;
    QString budgetButtonLabel() const;
    QString errorMessage() const { return m_errorMessage.value_or(QString()); }
    QString errorText() const { return errorMessage().toUpper(); }

    QString lanesHeader() const;
    QVariantList lanes() const;
    QVariantList metrics() const;
    QStringList suggestions() const { return suggestionsFor(m_figures); }
    QVariantList budgetRows() const;
    QVariantList generationRows() const;
    QVariantList usageRows() const;
    bool hasDecision() const { return m_decision.has_value(); }
    QVariantList decisionCards() const;
    QString routedBecause() const;
    QString rejectedHeader() const;
    QStringList rejectedRows() const;

    // Reads the catalog, usage, budgets and generations at once; stores all or nothing.
    Q_INVOKABLE void load();
    // Validates, saves the policy, previews the route, then reads the catalog again.
    Q_INVOKABLE void preview();
    // Sets the account budget of the chosen period, then reads the budgets again.
    Q_INVOKABLE void saveBudget();

    // The same, awaitable (tests await them; the screen calls the ones above).
    QCoro::Task<> loadNow();
    QCoro::Task<> previewNow();
    QCoro::Task<> saveBudgetNow();

signals:
    void authChanged();
    void formChanged();
    void busyChanged();
    void errorChanged();
    void dataChanged();
    void decisionChanged();

private:
    template <class T> void change(T& field, const T& value) {
        if (field == value)
            return;
        field = value;
        emit formChanged();
    }
    void setError(std::optional<QString> message);
    void setBusy(bool& flag, bool value);
    void storeCatalog(const RouterCatalog& catalog);
    // Asked afresh after every wait: signing out or moving the relay replaces the client.
    RelayClient* relayClient() const { return m_auth ? m_auth->client() : nullptr; }

    QPointer<AuthStore> m_auth;
    RoutePreviewForm m_form;
    QString m_budgetPeriod = QStringLiteral("monthly");
    QString m_budgetLimit = QStringLiteral("25");
    bool m_isLoading = false;
    bool m_isPreviewing = false;
    bool m_isSavingBudget = false;
    std::optional<QString> m_errorMessage;
    RoutingFigures m_figures;
    std::map<QString, RouterAdapter> m_adapters;
    QList<RouterGeneration> m_generations;
    std::optional<RouteDecision> m_decision;
};
