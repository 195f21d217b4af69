#include "QuillmereDesktop/Auth/LoginViewModel.h"

LoginViewModel::LoginViewModel(QObject* parent) : QObject(parent) {}

void LoginViewModel::setAuth(AuthStore* auth) {
    if (m_auth == auth)
        return;
    if (m_auth)
        m_auth->disconnect(this);
    m_auth = auth;
    if (m_auth) {
        connect(m_auth, &AuthStore::stateChanged, this, &LoginViewModel::cardChanged);
        connect(m_auth, &AuthStore::authErrorChanged, this, &LoginViewModel::errorTextChanged);
    }
    emit authChanged();
    emit cardChanged();
    emit errorTextChanged();
}

LoginViewModel::Card LoginViewModel::card() const {
    if (!m_auth)
        return Card::spinner;
    switch (m_auth->state()) {
    case AuthStore::State::relayUnreachable:
        return Card::unreachable;
    case AuthStore::State::needsEmail:
        return Card::email;
    case AuthStore::State::codeSent:
        return Card::code;
    case AuthStore::State::needsSecondFactor:
        // Only an authenticator code can be typed here; a passkey alone cannot be used.
        return m_auth->methods().contains(SecondFactor::totp) ? Card::authenticator : Card::passkeyOnly;
    case AuthStore::State::checking:
    case AuthStore::State::signedIn:
        return Card::spinner;
    }
    return Card::spinner;
}

void LoginViewModel::setEmail(const QString& email) {
    if (m_email == email)
        return;
    m_email = email;
    emit emailChanged();
    emit buttonsChanged();
}

void LoginViewModel::setCode(const QString& code) {
    if (m_code == code)
        return;
    m_code = code;
    emit codeChanged();
    emit buttonsChanged();
}

bool LoginViewModel::canSendCode() const {
    return !m_isSubmitting && !m_email.trimmed().isEmpty();
}

bool LoginViewModel::canVerify() const {
    return !m_isSubmitting && !m_code.trimmed().isEmpty();
}

QString LoginViewModel::errorText() const {
    return m_auth ? m_auth->authError().value_or(QString()) : QString();
}

QString LoginViewModel::codeSentText() const {
    return m_auth ? QStringLiteral("Code sent to %1.").arg(m_auth->email()) : QString();
}

void LoginViewModel::retry() {
    if (m_isRetrying || !m_auth)
        return;
    runRetry();
}

QCoro::Task<> LoginViewModel::runRetry() {
    QPointer<LoginViewModel> self(this);
    setRetrying(true);
    co_await m_auth->bootstrap();
    if (self)
        self->setRetrying(false);
}

void LoginViewModel::sendCode() {
    if (!m_auth || m_email.trimmed().isEmpty())
        return;
    runSendCode();
}

void LoginViewModel::resendCode() {
    sendCode();
}

QCoro::Task<> LoginViewModel::runSendCode() {
    QPointer<LoginViewModel> self(this);
    setSubmitting(true);
    // The store normalises the raw field itself.
    co_await m_auth->requestCode(m_email);
    if (self)
        self->setSubmitting(false);
}

void LoginViewModel::verifyCode() {
    if (!m_auth || m_code.trimmed().isEmpty())
        return;
    runVerifyCode();
}

QCoro::Task<> LoginViewModel::runVerifyCode() {
    QPointer<LoginViewModel> self(this);
    setSubmitting(true);
    co_await m_auth->verifyCode(m_code);
    if (!self)
        co_return;
    // The code field is reused for the authenticator code, so it starts empty there.
    if (m_auth && m_auth->state() == AuthStore::State::needsSecondFactor)
        setCode(QString());
    setSubmitting(false);
}

void LoginViewModel::verifySecondFactor() {
    if (!m_auth || m_code.trimmed().isEmpty())
        return;
    runVerifySecondFactor();
}

QCoro::Task<> LoginViewModel::runVerifySecondFactor() {
    QPointer<LoginViewModel> self(this);
    setSubmitting(true);
    co_await m_auth->verifySecondFactor(m_code);
    if (self)
        self->setSubmitting(false);
}

void LoginViewModel::changeEmail() {
    if (m_auth)
        m_auth->startOver();
    setCode(QString());
}

void LoginViewModel::setRetrying(bool value) {
    if (m_isRetrying == value)
        return;
    m_isRetrying = value;
    emit isRetryingChanged();
}

void LoginViewModel::setSubmitting(bool value) {
    if (m_isSubmitting == value)
        return;
    m_isSubmitting = value;
    emit isSubmittingChanged();
    emit buttonsChanged();
}
