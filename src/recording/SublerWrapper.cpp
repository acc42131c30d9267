#include "SublerWrapper.h"

#include "ShellCommand.h"

namespace zandor {

SublerWrapper& SublerWrapper::instance() {
    static SublerWrapper wrapper;
    return wrapper;
}

bool SublerWrapper::appendSource(const QString& source, const QString& destination) {
    return ShellCommand::runSucceeded(QStringLiteral("SublerCLI"), {QStringLiteral("-source"), source,
                                                                    QStringLiteral("-dest"), destination});
}

} // namespace zandor
