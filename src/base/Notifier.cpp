#include "Notifier.h"

namespace zandor {

Notifier* Notifier::instance() {
    static Notifier notifier;
    return &notifier;
}

void Notifier::post(const QString& name, const QVariant& object, const QVariantMap& userInfo) {
    emit notified(name, object, userInfo);
}

} // namespace zandor
