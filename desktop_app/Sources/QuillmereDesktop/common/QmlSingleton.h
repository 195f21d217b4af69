#pragma once

#include <QJSEngine>
#include <QPointer>
#include <QQmlEngine>

#include <type_traits>

// The long-lived stores are made once by the application entry, before any QML, and
// handed to QML as singletons that QML never owns. A store's `create` returns the
// instance set here.
template <class T> class QmlSingleton {
    // Qt 6.4 builds a QML singleton with its default constructor whenever it has one, and
    // only otherwise asks `create`: a store QML could construct would be a second, idle
    // instance beside the application's.
    static_assert(!std::is_default_constructible_v<T>,
                  "a store shared with QML must not be default-constructible, or QML makes its own");

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
