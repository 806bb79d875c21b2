#pragma once

#include <QObject>
#include <QString>
#include <QVariantMap>

// Names of the notifications posted inside the program.
namespace NotificationName {
// Posted by the browsers when their selection changes; user info "movie",
// "tab" and "count", or empty for no selection.
inline constexpr char SelectionChanged[] = "nSELECTION_CHANGED";
// Posted after a live resize of the main window.
inline constexpr char WindowDidResize[] = "cWINDOW_DID_RESIZE";
// Reserved: registered for by the application controller, never posted.
inline constexpr char ScanMovie[] = "nSCAN_MOVIE";
} // namespace NotificationName

// The process-wide notification center. Observers connect to posted(); a post
// is delivered synchronously on the posting thread (every poster is on the
// main thread).
class NotificationCenter : public QObject {
    Q_OBJECT
public:
    static NotificationCenter& defaultCenter();

    void post(const QString& name, const QVariantMap& userInfo = {});

signals:
    void posted(const QString& name, const QVariantMap& userInfo);

private:
    NotificationCenter() = default;
};
