#pragma once

#include "QuillmereDesktop/Auth/AuthStore.h"

#include <QMetaEnum>
#include <QObject>
#include <QPointer>
#include <QtQml/qqmlregistration.h>

// The sign-in screen: which card shows, what its buttons say and allow, and what they do.
class LoginViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(AuthStore* auth READ auth WRITE setAuth NOTIFY authChanged)
    Q_PROPERTY(Card card READ card NOTIFY cardChanged)
    Q_PROPERTY(QString cardName READ cardName NOTIFY cardChanged)
    Q_PROPERTY(QString email READ email WRITE setEmail NOTIFY emailChanged)
    Q_PROPERTY(QString code READ code WRITE setCode NOTIFY codeChanged)
    Q_PROPERTY(bool isRetrying READ isRetrying NOTIFY isRetryingChanged)
    Q_PROPERTY(bool isSubmitting READ isSubmitting NOTIFY isSubmittingChanged)
    Q_PROPERTY(bool canSendCode READ canSendCode NOTIFY buttonsChanged)
    Q_PROPERTY(bool canVerify READ canVerify NOTIFY buttonsChanged)
    Q_PROPERTY(QString retryLabel READ retryLabel NOTIFY isRetryingChanged)
    Q_PROPERTY(QString errorText READ errorText NOTIFY errorTextChanged)
    Q_PROPERTY(QString codeSentText READ codeSentText NOTIFY cardChanged)
    Q_PROPERTY(QString wordmark READ wordmark CONSTANT)
    Q_PROPERTY(QString tagline READ tagline CONSTANT)
    Q_PROPERTY(QString unreachableAlert READ unreachableAlert CONSTANT)
    Q_PROPERTY(QString unreachableHelp READ unreachableHelp CONSTANT)
    Q_PROPERTY(QString unreachableCommand READ unreachableCommand CONSTANT)
    Q_PROPERTY(QString emailLabel READ emailLabel CONSTANT)
    Q_PROPERTY(QString emailPlaceholder READ emailPlaceholder CONSTANT)
    Q_PROPERTY(QString sendCodeLabel READ sendCodeLabel CONSTANT)
    Q_PROPERTY(QString codeLabel READ codeLabel CONSTANT)
    Q_PROPERTY(QString codePlaceholder READ codePlaceholder CONSTANT)
    Q_PROPERTY(QString verifyLabel READ verifyLabel CONSTANT)
    Q_PROPERTY(QString resendLabel READ resendLabel CONSTANT)
    Q_PROPERTY(QString changeEmailLabel READ changeEmailLabel CONSTANT)
    Q_PROPERTY(QString totpIntro READ totpIntro CONSTANT)
    Q_PROPERTY(QString totpLabel READ totpLabel CONSTANT)
    Q_PROPERTY(QString recoveryNote READ recoveryNote CONSTANT)
    Q_PROPERTY(QString passkeyAlert READ passkeyAlert CONSTANT)
    Q_PROPERTY(QString passkeyHelp READ passkeyHelp CONSTANT)
    Q_PROPERTY(QString startOverLabel READ startOverLabel CONSTANT)

public:
    enum class Card { spinner, unreachable, email, code, authenticator, passkeyOnly };
    Q_ENUM(Card)

    static QString wordmark() { return QStringLiteral("QUILLMERE"); }
    static QString tagline() { return QStringLiteral("your agents ask; you decide"); }
    static QString unreachableAlert() { return QStringLiteral("can't reach local relay"); }
    static QString unreachableHelp() {
        return QStringLiteral("Quillmere could not start its bundled relay runtime. Reinstall the app, or "
                              "for source development run:");
    }
    static QString unreachableCommand() { return QStringLiteral("./cloud_app/src/relay/run.sh"); }
    static QString retryButton() { return QStringLiteral("RETRY"); }
    static QString checkingButton() { return QStringLiteral("CHECKING"); }
    static QString emailLabel() { return QStringLiteral("email"); }
    static QString emailPlaceholder() { return QStringLiteral("you@example.com"); }
    static QString sendCodeLabel() { return QStringLiteral("SEND CODE"); }
    static QString codeLabel() { return QStringLiteral("code"); }
    static QString codePlaceholder() { return QStringLiteral("000000"); }
    static QString verifyLabel() { return QStringLiteral("VERIFY"); }
    static QString resendLabel() { return QStringLiteral("Resend code"); }
    static QString changeEmailLabel() { return QStringLiteral("Change email"); }
    static QString totpIntro() { return QStringLiteral("Two-factor is on for this account."); }
    static QString totpLabel() { return QStringLiteral("authenticator code"); }
    static QString recoveryNote() { return QStringLiteral("A recovery code works here too."); }
    static QString passkeyAlert() { return QStringLiteral("! passkey not supported here"); }
    static QString passkeyHelp() {
        return QStringLiteral("This account's only second factor is a passkey, which this app cannot use "
                              "yet. Sign in on the web "
                              "client and add an authenticator app under Security, then come back.");
    }
    static QString startOverLabel() { return QStringLiteral("Start over"); }

    explicit LoginViewModel(QObject* parent = nullptr);

    AuthStore* auth() const { return m_auth; }
    void setAuth(AuthStore* auth);
    Card card() const;
    // The card's case name, for the screen to compare against.
    QString cardName() const {
        return QString::fromLatin1(QMetaEnum::fromType<Card>().valueToKey(int(card())));
    }
    const QString& email() const { return m_email; }
    void setEmail(const QString& email);
    const QString& code() const { return m_code; }
    void setCode(const QString& code);
    bool isRetrying() const { return m_isRetrying; }
    bool isSubmitting() const { return m_isSubmitting; }
    bool canSendCode() const;
    bool canVerify() const;
    QString retryLabel() const { return m_isRetrying ? checkingButton() : retryButton(); }
    QString errorText() const;
    QString codeSentText() const;

    // The unreachable card's button: runs bootstrap again.
    Q_INVOKABLE void retry();
    // The e-mail card's button, and Return in its field.
    Q_INVOKABLE void sendCode();
    // "Resend code": the e-mail card's action again, with the address still in the field.
    Q_INVOKABLE void resendCode();
    // The code card's button.
    Q_INVOKABLE void verifyCode();
    // The authenticator card's button.
    Q_INVOKABLE void verifySecondFactor();
    // "Change email" and "Start over".
    Q_INVOKABLE void changeEmail();

signals:
    void authChanged();
    void cardChanged();
    void emailChanged();
    void codeChanged();
    void isRetryingChanged();
    void isSubmittingChanged();
    void buttonsChanged();
    void errorTextChanged();

private:
    QCoro::Task<> runRetry();
    QCoro::Task<> runSendCode();
    QCoro::Task<> runVerifyCode();
    QCoro::Task<> runVerifySecondFactor();
    void setRetrying(bool value);
    void setSubmitting(bool value);

    QPointer<AuthStore> m_auth;
    QString m_email;
    QString m_code;
    bool m_isRetrying = false;
    bool m_isSubmitting = false;
};
