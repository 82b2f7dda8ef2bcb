// MainController: the account sheet, where the user names the account and Hoplift checks
// it with the service before taking it, and the password in the secret store.
#include "app/MainController.h"

#include "app/Alert.h"
#include "app/Keychain.h"
#include "app/Log.h"
#include "app/RunLoop.h"
#include "app/Service.h"
#include "ui/ZRClickableURLTextField.h"
#include "ui_AccountSheet.h"
#include "ui_MainWindow.h"

#include <QCheckBox>
#include <QDesktopServices>
#include <QDialog>
#include <QLineEdit>
#include <QMainWindow>
#include <QProgressBar>
#include <QPushButton>
#include <QSettings>

#include <functional>

namespace {

/** @brief The sheet: Escape and the window's close button are its Cancel. */
class AccountSheetDialog : public QDialog
{
public:
    AccountSheetDialog(QWidget *parent, std::function<void()> cancel)
        : QDialog(parent), cancel(std::move(cancel))
    {}

    void reject() override
    {
        // While the account is being checked, Cancel is disabled, and so is this.
        if (QPushButton *button = findChild<QPushButton *>(QStringLiteral("b_Cancel"));
            button && button->isEnabled())
            cancel();
    }

private:
    std::function<void()> cancel;
};

void startSpinning(QProgressBar *spinner)
{
    spinner->setRange(0, 0);
}

void stopSpinning(QProgressBar *spinner)
{
    spinner->setRange(0, 1);
    spinner->setValue(0);
}

QString contactLine(const QString &lead)
{
    return QStringLiteral("%1%2.").arg(lead, Service::supportAddress());
}

} // namespace

void MainController::buildAccountSheet()
{
    auto *dialog = new AccountSheetDialog(window, [this] { CancelPressed(); });
    Ui::AccountSheet sheet;
    sheet.setupUi(dialog);
    dialog->setWindowModality(Qt::WindowModal);
    sheetAccount = dialog;
    f_URL = sheet.f_URL;
    f_Username = sheet.f_Username;
    f_Password = sheet.f_Password;
    b_SavePass = sheet.b_SavePass;
    f_SignUp = sheet.f_SignUp;
    b_Cancel = sheet.b_Cancel;
    b_OK = sheet.b_OK;
    b_Spin = sheet.b_Spin;
    b_Spin->hide();
    QObject::connect(b_OK, &QPushButton::clicked, this, [this] { OKPressed(); });
    QObject::connect(b_Cancel, &QPushButton::clicked, this, [this] { CancelPressed(); });
    QObject::connect(sheetAccount, &QDialog::finished, this,
                     [this](int code) { sheetDidEnd(code); });
    QObject::connect(ui->actionPreferences, &QAction::triggered, this,
                     [this] { editPreferences(); });
    QObject::connect(ui->actionMyAccount, &QAction::triggered, this, [this] { goToMyAccount(); });
    QObject::connect(ui->actionTerms, &QAction::triggered, this,
                     [this] { goToTermsAndConditions(); });
    QObject::connect(textSpaceandPreference, &ZRClickableURLTextField::clicked, this,
                     [this](ZRClickableURLTextField *sender) { clicked(sender); });
}

void MainController::clicked(ZRClickableURLTextField *)
{
    editPreferences();
}

void MainController::editPreferences()
{
    if (sheetAccount->isVisible()) {
        sheetAccount->raise();
        return;
    }
    inPreferences = true;
    const QUrl parsed(targetURL);
    if (!targetURL.isNull() && parsed.isValid() && !parsed.host().isEmpty())
        f_URL->setText(parsed.host());
    else
        f_URL->setText(targetURL.isNull() ? QString() : targetURL);
    oldURL = f_URL->text();
    if (!userName.isNull())
        f_Username->setText(userName);
    if (!password.isNull())
        f_Password->setText(password);
    b_Spin->hide();
    window->showNormal();
    sheetAccount->open();
    if (!targetURL.isNull() && password.isNull())
        f_Password->setFocus();
    else
        f_URL->setFocus();
}

void MainController::OKPressed()
{
    QString text = f_URL->text();
    if (!text.startsWith(QLatin1String("http")))
        text = QStringLiteral("http://%1").arg(text);
    const QUrl entered(text, QUrl::StrictMode);
    hlog("%s", qPrintable(entered.host()));
    if (!entered.isValid() || entered.host().isEmpty()) {
        runAlert(sheetAccount, QMessageBox::Critical,
                 QStringLiteral("Can't connect to this Account URL"),
                 contactLine(QStringLiteral(
                     "Please make sure that you've entered the URL correctly. If you should "
                     "still have problems connecting to your kelvara account, please contact ")),
                 QStringLiteral("OK"));
        return;
    }
    const QString absolute = entered.toString(QUrl::FullyEncoded);
    // Fires only when the field already held this very URL, which the sheet never shows
    // by itself (it shows the host): an unchanged account is normally checked again.
    if (oldURL == absolute && userName == f_Username->text() && password == f_Password->text() &&
        !password.isNull() && !userName.isNull() && !oldURL.isNull()) {
        sheetAccount->done(1);
        return;
    }
    if (currentUpload && currentUpload->isUploading() &&
        !runAlert(sheetAccount, QMessageBox::Warning, QStringLiteral("Warning"),
                  QStringLiteral("Changing preferences will interrupt the current upload."),
                  QStringLiteral("OK"), QStringLiteral("Cancel")))
        return;
    stopAllUploads(true);
    b_Spin->show();
    for (QVStreamer *streamer : {accountInfo, userInfo}) {
        streamer->setUserName(f_Username->text());
        streamer->setPassword(f_Password->text());
    }
    accountValid = false;
    updateAccountInfo(absolute);
    updateUserInfo(absolute);
    startSpinning(b_Spin);
    b_OK->setEnabled(false);
    b_Cancel->setEnabled(false);
    for (int round = 0; round < 50; ++round) {
        if (accountInfo->isRequestFinished())
            break;
        runRunLoop(0.1);
    }
    b_OK->setEnabled(true);
    b_Cancel->setEnabled(true);
    if (accountValid) {
        sheetAccount->done(1);
        return;
    }
    runAlert(sheetAccount, QMessageBox::Warning,
             QStringLiteral("There was a problem verifying this account"),
             contactLine(QStringLiteral(
                 "Please check if you've entered all information correctly. If you should "
                 "still have problems connecting to your kelvara account, please contact ")),
             QStringLiteral("OK"));
    stopSpinning(b_Spin);
    b_Spin->hide();
}

void MainController::CancelPressed()
{
    accountInfo->stopStreaming();
    sheetAccount->done(0);
}

void MainController::sheetDidEnd(int returnCode)
{
    oldURL = QString();
    stopSpinning(b_Spin);
    inPreferences = false;
    if (returnCode == 1) {
        // The account is kept where the service really answered, after any redirect.
        targetURL = accountInfo->targetURL();
        url = QUrl(targetURL);
        userName = f_Username->text();
        password = f_Password->text();
        QSettings settings;
        settings.setValue(QVURLKey, targetURL);
        settings.setValue(QVUserNameKey, userName);
        syncSettings(settings);
        // Without the box the stored password is overwritten with an empty one.
        savePassword(b_SavePass->isChecked() ? password : QStringLiteral(""));
    }
    setAccountData();
    startNextUpload();
}

QString MainController::retrievePassword()
{
    QByteArray data;
    quint32 length = 0;
    KeychainItem item;
    if (GetPasswordKeychain(&data, &length, &item) != 0)
        return QString();
    // Read as a C string: the stored zero byte ends the password.
    return QString::fromUtf8(data.left(length).constData());
}

bool MainController::savePassword(const QString &secret)
{
    if (secret.isNull())
        return false;
    // The length counts characters, plus the zero byte: a password with characters
    // beyond ASCII is stored cut to that many bytes, as it always has been.
    const QByteArray bytes = secret.toUtf8();
    const quint32 length = quint32(secret.size()) + 1;
    return StorePasswordKeychain(bytes.constData(), length) == 0;
}

void MainController::goToMyAccount()
{
    QDesktopServices::openUrl(QUrl(targetURL));
}

void MainController::goToTermsAndConditions()
{
    QDesktopServices::openUrl(
        QUrl(QStringLiteral("http://%1/terms.html.en").arg(Service::webHost())));
}
