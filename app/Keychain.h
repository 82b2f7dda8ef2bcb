#pragma once

#include <QByteArray>
#include <QString>

/**
 * @brief Hoplift's one password in the desktop's secret store (Secret Service or KWallet),
 * under the service "Hoplift!" and the key "DefaultAccount".
 *
 * Every call returns a status: 0 success, KeychainItemNotFound when no item is stored, and
 * another negative code for every other failure (no secret store, access refused, ...).
 * There is no plain-text fallback: without a secret store no password is kept.
 */
constexpr int KeychainItemNotFound = -25300;
constexpr int KeychainNotAvailable = -25291;
constexpr int KeychainAccessDenied = -25293;
constexpr int KeychainWriteFailed = -25294;
constexpr int KeychainOtherError = -25299;

/** @brief A found item: its service and key, enough to rewrite it. */
struct KeychainItem
{
    QString service;
    QString account;
};

/** @brief Finds the item: its data, the data's length and the item itself. */
int GetPasswordKeychain(QByteArray *passwordData, quint32 *passwordLength, KeychainItem *item);
/** @brief Rewrites a found item with the first passwordLength bytes of passwordData. */
int ChangePasswordKeychain(const char *passwordData, quint32 passwordLength,
                           const KeychainItem &item);
/** @brief Adds the item, or rewrites it when it exists. */
int StorePasswordKeychain(const char *passwordData, quint32 passwordLength);
