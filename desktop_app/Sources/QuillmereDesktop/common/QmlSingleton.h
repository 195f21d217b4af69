#pragma once

#include <QJSEngine>
#include <QPointer>
#include <QQmlEngine>

// The long-lived stores are made once by the application entry, before any QML, and
// handed to QML as singletons that QML never owns. A store's `create` returns the
// instance set here.
template <class T> class QmlSingleton {
public:
    static void set(T* instance) { s_instance = instance; }
    static T* create(QQmlEngine*, QJSEngine*) {
        Q_ASSERT_X(s_instance, "QmlSingleton", "the application must set the instance before loading QML");
        QJSEngine::setObjectOwnership(s_instance, QJSEngine::CppOwnership);
        return s_instance;
    }

private:
    static inline QPointer<T> s_instance;
};
