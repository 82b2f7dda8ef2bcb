#pragma once

#include <QString>

/** @brief Addresses of the kelvara service that Hoplift names itself. */
namespace Service {
/** @brief The service's web host (pricing, terms, update feed). */
inline QString webHost()
{
    return QStringLiteral("www.kelvara.com");
}
/** @brief Where users write to for help, and where crash reports go. */
inline QString supportAddress()
{
    return QStringLiteral("support@kelvara.com");
}
} // namespace Service
