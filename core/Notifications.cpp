#include "core/Notifications.h"

NotificationCenter& NotificationCenter::defaultCenter() {
    static NotificationCenter center;
    return center;
}

void NotificationCenter::post(const QString& name, const QVariantMap& userInfo) {
    emit posted(name, userInfo);
}
