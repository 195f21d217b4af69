#pragma once

#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/agents/AgentRunStore.h"
#include "QuillmereDesktop/queue/AppState.h"
#include "QuillmereDesktop/routing/PresetRecords.h"
#include "QuillmereDesktop/terminal/CLIStatusStore.h"

#include <QObject>
#include <QPointer>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>
#include <qcoro/qcorotask.h>

#include <optional>

// The orchestrator: a prompt, the lane it runs in, how much a local agent may do, and the
// list of every run. It resolves the lane, puts the shared project context before the task
// when asked, and hands the run to the run store.
class AgentOrchestratorViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(AppState* app READ app WRITE setApp NOTIFY sourcesChanged)
    Q_PROPERTY(AuthStore* auth READ auth WRITE setAuth NOTIFY sourcesChanged)
    Q_PROPERTY(CLIStatusStore* cli READ cli WRITE setCli NOTIFY sourcesChanged)
    Q_PROPERTY(AgentRunStore* store READ store WRITE setStore NOTIFY sourcesChanged)
    Q_PROPERTY(QString selectedLane READ selectedLane WRITE setSelectedLane NOTIFY formChanged)
    Q_PROPERTY(QString safety READ safetyText WRITE setSafetyText NOTIFY formChanged)
    Q_PROPERTY(bool includeContext READ includeContext WRITE setIncludeContext NOTIFY formChanged)
    Q_PROPERTY(QString prompt READ prompt WRITE setPrompt NOTIFY formChanged)
    Q_PROPERTY(QString selectedPreset READ selectedPreset WRITE setSelectedPreset NOTIFY formChanged)
    Q_PROPERTY(QVariantList presetOptions READ presetOptions NOTIFY presetsChanged)
    Q_PROPERTY(QString laneExplanation READ laneExplanation NOTIFY formChanged)
    Q_PROPERTY(QString presetNote READ presetNote NOTIFY formChanged)
    Q_PROPERTY(QString safetyNote READ safetyNote NOTIFY formChanged)
    Q_PROPERTY(bool isPreparing READ isPreparing NOTIFY formChanged)
    Q_PROPERTY(QString launchLabel READ launchLabel NOTIFY formChanged)
    Q_PROPERTY(bool canLaunch READ canLaunch NOTIFY runsChanged)
    Q_PROPERTY(QString activeLine READ activeLine NOTIFY runsChanged)
    Q_PROPERTY(bool atLimit READ atLimit NOTIFY runsChanged)
    Q_PROPERTY(QString runsHeading READ runsHeading NOTIFY runsChanged)
    Q_PROPERTY(QVariantList runCards READ runCards NOTIFY runsChanged)
    Q_PROPERTY(QString errorMessage READ errorText NOTIFY errorChanged)
    Q_PROPERTY(QVariantList lanes READ lanes CONSTANT)
    Q_PROPERTY(QStringList safeties READ safeties CONSTANT)
    Q_PROPERTY(QVariantMap labels READ labels CONSTANT)

public:
    // The budget of a pack put before a prompt, in characters.
    static constexpr qint64 contextBudget = 24000;
    static inline const QString contextPreamble =
        QStringLiteral("Shared Quillmere project context (explicitly saved by the user):\n\n");

    static QVariantList lanes();
    static QStringList safeties();
    static QVariantMap labels();
    static QString explanation(const QString& lane);
    // "@PRESET/<SLUG> · V<n>", as the preset picker names a preset.
    static QString presetLabel(const InferencePreset& preset);
    // A prompt with the pack before it; the task alone when the pack is empty.
    static QString withContext(const QString& task, const QString& packContent);
    // The input size the lane "auto" asks the router about: a token per four characters, at least one.
    static qint64 previewInputTokens(const QString& task);

    explicit AgentOrchestratorViewModel(QObject* parent = nullptr);

    AppState* app() const { return m_app; }
    void setApp(AppState* app);
    AuthStore* auth() const { return m_auth; }
    void setAuth(AuthStore* auth);
    CLIStatusStore* cli() const { return m_cli; }
    void setCli(CLIStatusStore* cli);
    AgentRunStore* store() const { return m_store; }
    void setStore(AgentRunStore* store);

    const QString& selectedLane() const { return m_selectedLane; }
    void setSelectedLane(const QString& lane);
    AgentSafety safety() const { return m_safety; }
    QString safetyText() const;
    void setSafetyText(const QString& safety);
    bool includeContext() const { return m_includeContext; }
    void setIncludeContext(bool include);
    const QString& prompt() const { return m_prompt; }
    void setPrompt(const QString& prompt);
    const QString& selectedPreset() const { return m_selectedPreset; }
    void setSelectedPreset(const QString& slug);
    const QList<InferencePreset>& presets() const { return m_presets; }
    QVariantList presetOptions() const;
    QString laneExplanation() const { return explanation(m_selectedLane); }
    QString presetNote() const;
    QString safetyNote() const;
    bool isPreparing() const { return m_isPreparing; }
    QString launchLabel() const;
    int activeCount() const { return m_store ? m_store->activeCount() : 0; }
    bool atLimit() const { return activeCount() >= AgentRunStore::maxConcurrentRuns; }
    bool canLaunch() const;
    QString activeLine() const;
    QString runsHeading() const;
    QVariantList runCards() const;
    QString errorText() const { return m_errorMessage.value_or(QString()); }

    // Reads the presets when the screen appears; any failure leaves the list empty.
    Q_INVOKABLE void load();
    Q_INVOKABLE void launch();
    Q_INVOKABLE void cancel(const QString& runId);
    Q_INVOKABLE void copyOutput(const QString& runId) const;

    QCoro::Task<> loadNow();
    QCoro::Task<> launchNow();
    // Which worker the task goes to, by the selected lane.
    QCoro::Task<Result<LocalAgent>> resolveAgent(QString task);
    // The task with the project's shared context before it, when that is asked for.
    QCoro::Task<Result<QString>> promptWithContext(QString task);

signals:
    void sourcesChanged();
    void formChanged();
    void presetsChanged();
    void runsChanged();
    void errorChanged();

private:
    RelayClient* client() const { return m_auth ? m_auth->client() : nullptr; }
    void setError(std::optional<QString> message);

    QPointer<AppState> m_app;
    QPointer<AuthStore> m_auth;
    QPointer<CLIStatusStore> m_cli;
    QPointer<AgentRunStore> m_store;
    QString m_selectedLane = QStringLiteral("auto");
    AgentSafety m_safety = AgentSafety::plan;
    bool m_includeContext = true;
    QString m_prompt;
    QList<InferencePreset> m_presets;
    QString m_selectedPreset;
    bool m_isPreparing = false;
    std::optional<QString> m_errorMessage;
};
