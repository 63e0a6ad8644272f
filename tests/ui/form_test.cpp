// SPDX-License-Identifier: MIT
#include "openvpn_service.h"
#include "text_field.h"
#include "title_button.h"
#include "ui_fixture.h"
#include "wait_for.h"

#include <QCheckBox>
#include <QClipboard>
#include <QDesktopServices>
#include <QLabel>
#include <QPushButton>
#include <QScreen>
#include <QTest>
#include <QWindow>

using namespace Qt::StringLiterals;

namespace {

struct Look {
    QString title;
    QRgb titleColor;
    QRgb image; ///< the colour in the middle of its left end
    bool enabled;
    QRgb labelColor;
    bool operator==(const Look &) const = default;
};

const Look stopped{u"Conectar"_s, 0xFF9D9EA2, 0xFF22262E, true, 0xFFFFFFFF};
const Look connecting{u"Conectando..."_s, 0xFF9D9EA2, 0xFF22262E, false, 0xFF9D9EA2};
const Look connected{u"Desconectar"_s, 0xFFFFFFFF, 0xFF1A7E50, false, 0xFF9D9EA2};

void PrintTo(const Look &look, std::ostream *out)
{
    *out << look.title.toStdString() << ' ' << std::hex << look.titleColor << ' ' << look.image << ' ' << look.enabled
         << ' ' << look.labelColor;
}

bool holds(const QImage &picture, QRgb color)
{
    for (int y = 0; y < picture.height(); ++y)
        for (int x = 0; x < picture.width(); ++x)
            if (picture.pixel(x, y) == color)
                return true;
    return false;
}

class FormTest : public UiTest {
protected:
    FormTest() { launch(); }

    QImage picture(QWidget &widget) { return widget.grab().toImage().convertToFormat(QImage::Format_RGB32); }

    /// As it is on the screen. Fails when the three controls or the two titles differ from each other.
    Look look()
    {
        const bool enabled = form().emailEdit->isEnabled();
        EXPECT_EQ(form().passwordEdit->isEnabled(), enabled);
        EXPECT_EQ(form().rememberCheck->isEnabled(), enabled);
        EXPECT_TRUE(form().connectButton->isEnabled());
        EXPECT_EQ(delegate_->connectItem->text(), form().connectButton->text());
        const QImage button = picture(*form().connectButton);
        const QRgb titleColor = form().connectButton->palette().buttonText().color().rgb();
        EXPECT_TRUE(holds(button, titleColor));
        const QRgb labelColor = form().rememberText->palette().windowText().color().rgb();
        EXPECT_TRUE(holds(picture(*form().rememberText), labelColor));
        return {form().connectButton->text(), titleColor, button.pixel(button.height() / 2, button.height() / 2),
                enabled, labelColor};
    }
};

} // namespace

TEST_F(FormTest, ANewFormIsEmptyDarkAndReadyForTheKeyboard)
{
    EXPECT_EQ(form().emailEdit->text(), QString());
    EXPECT_EQ(form().passwordEdit->text(), QString());
    EXPECT_FALSE(form().rememberCheck->isChecked());
    EXPECT_EQ(look(), stopped);

    for (QWidget *const next :
         std::initializer_list<QWidget *>{form().emailEdit, form().passwordEdit, form().rememberCheck,
                                          form().connectButton, form().signupButton, form().helpButton}) {
        EXPECT_EQ(QApplication::focusWidget(), next) << next->objectName().toStdString();
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
    }
}

TEST_F(FormTest, TheColoursOnTheScreenAreThePalette)
{
    form().emailEdit->setFocus();
    const QImage whole = picture(form());
    const auto pixel = [&](const QWidget &at) {
        return whole.pixel(at.mapTo(&form(), at.rect().center()) * whole.devicePixelRatio());
    };
    EXPECT_EQ(whole.pixel(2, 2), 0xFF282C35);
    EXPECT_EQ(pixel(*form().emailLine), 0xFF9D9EA2);
    EXPECT_EQ(pixel(*form().passwordLine), 0xFF9D9EA2);
    EXPECT_TRUE(holds(picture(*form().signupButton), 0xFF9D9EA2));
    EXPECT_TRUE(holds(picture(*form().helpButton), 0xFF9D9EA2));

    for (const auto &[field, placeholder] :
         {std::pair{form().emailEdit, u"Email"_s}, {form().passwordEdit, u"Contraseña"_s}}) {
        EXPECT_EQ(field->placeholderText(), placeholder);
        EXPECT_EQ(field->font().pointSize(), 13);
        EXPECT_EQ(field->accessibleName(), placeholder);
        field->setFocus();
        const QImage focused = picture(*field);
        EXPECT_TRUE(holds(focused, 0xFF9D9EA2)) << "placeholder";
        EXPECT_TRUE(holds(focused, 0xFFFFFFFF)) << "caret";
        // Neither a frame nor a ring: the rim is the background.
        for (int x = 0; x < focused.width(); ++x)
            EXPECT_EQ(focused.pixel(x, 0), 0xFF282C35);
        EXPECT_EQ(focused.pixel(focused.width() - 1, focused.height() / 2), 0xFF282C35);
    }
}

TEST_F(FormTest, EveryStateNameHasTheLookOfItsClassAndAnUnknownOneNone)
{
    const std::pair<const char *, const Look *> rows[] = {
        {"USER_VPN_PERMISSION", &connecting},
        {"VPN_GENERATE_CONFIG", &connecting},
        {"NONETWORK", &connecting},
        {"CONNECTING", &connecting},
        {"WAIT", &connecting},
        {"RECONNECTING", &connecting},
        {"RESOLVE", &connecting},
        {"TCP_CONNECT", &connecting},
        {"AUTH", &connecting},
        {"GET_CONFIG", &connecting},
        {"ASSIGN_IP", &connecting},
        {"ADD_ROUTES", &connecting},
        {"CONNECTED", &connected},
        {"DISCONNECTED", &stopped},
        {"EXITING", &stopped},
        {"NOPROCESS", &stopped},
        {"connected", nullptr},
        {"WAIT ", nullptr},
        {"", nullptr},
    };
    for (const auto &[name, expected] : rows)
        for (const Look *const before : {&stopped, &connected}) {
            before == &stopped ? form().showStopped() : form().showConnected();
            OpenVPNService::shared().setState(u"NOPROCESS"_s);
            announce(QString::fromLatin1(name));
            EXPECT_EQ(look(), expected ? *expected : *before) << name;
        }
}

TEST_F(FormTest, ALookIsThatOfTheStateWhenItsNoticeIsHandled)
{
    OpenVPNService::shared().updateState(u"CONNECTED"_s);
    OpenVPNService::shared().setState(u"WAIT"_s);
    ASSERT_TRUE(waitFor([this] { return form().connectButton->text() != stopped.title; }));
    EXPECT_EQ(look(), connecting);
}

TEST_F(FormTest, AnEmptyFieldIsRefusedInTheOrderOfTheForm)
{
    const std::tuple<QString, QString, QString> rows[] = {
        {{}, {}, u"Email should not be empty!"_s},
        {{}, u"secret"_s, u"Email should not be empty!"_s},
        {u"a@b.example"_s, {}, u"Password should not be empty!"_s},
    };
    for (const auto &[email, password, message] : rows)
        for (const bool fromMenu : {false, true}) {
            type(email, password);
            fromMenu ? delegate_->connectItem->trigger() : QTest::keyClick(form().passwordEdit, Qt::Key_Return);
            EXPECT_EQ(nextAlert(), message);
            EXPECT_EQ(look(), stopped);
            const QWidget *const empty = email.isEmpty() ? form().emailEdit : form().passwordEdit;
            EXPECT_EQ(delegate_->window->focusWidget(), empty);
        }
}

TEST_F(FormTest, AlertsAreSheetsThatWaitForEachOther)
{
    delegate_->window->close();
    form().showAlert(u"Email o Contraseña & <b>inválidos</b>"_s);
    form().showAlert(u"second"_s);
    ASSERT_TRUE(waitFor([] { return alert() != nullptr; }));
    EXPECT_EQ(delegate_->window->findChildren<QMessageBox *>().size(), 1);
    EXPECT_TRUE(delegate_->window->isVisible());

    QMessageBox &box = *alert();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&box));
    EXPECT_EQ(box.text(), u"Email o Contraseña & <b>inválidos</b>"_s);
    EXPECT_EQ(box.textFormat(), Qt::PlainText);
    EXPECT_EQ(box.icon(), QMessageBox::Critical);
    EXPECT_EQ(box.windowModality(), Qt::WindowModal);
    EXPECT_EQ(box.parentWidget(), delegate_->window.get());
    EXPECT_TRUE(delegate_->window->geometry().contains(box.geometry()));
    EXPECT_LE((delegate_->window->geometry().center() - box.geometry().center()).manhattanLength(), 2);
    for (const QLabel *const label : box.findChildren<QLabel *>())
        EXPECT_GE(label->height(), label->heightForWidth(label->width())) << "text that is cut";
    ASSERT_EQ(box.buttons().size(), 1);
    EXPECT_EQ(box.standardButton(box.buttons().constFirst()), QMessageBox::Ok);

    QTest::keyClick(&box, Qt::Key_Return);
    ASSERT_TRUE(waitFor([] { return alertText() == u"second"_s; }));
    EXPECT_EQ(nextAlert(), u"second"_s);
    EXPECT_EQ(alert(), nullptr);
}

TEST_F(FormTest, ThePointerIsAHandOverEveryButton)
{
    form().showAlert(u"one more button"_s);
    ASSERT_TRUE(waitFor([] { return alert() != nullptr; }));
    int seen = 0;
    for (const QWidget *const widget : QApplication::allWidgets())
        if (const auto *const button = qobject_cast<const QAbstractButton *>(widget); button && button->isVisible()) {
            EXPECT_EQ(button->cursor().shape(), Qt::PointingHandCursor) << button->text().toStdString();
            ++seen;
        }
    EXPECT_EQ(seen, 5);
    EXPECT_NE(form().emailEdit->cursor().shape(), Qt::PointingHandCursor);
    closeAlert();

    // What is disabled has no say in it: the window's own pointer tells.
    const auto shapeOver = [](const QWidget &thing) {
        QWindow *const window = thing.window()->windowHandle();
        QTest::mouseMove(window, thing.mapTo(thing.window(), thing.rect().center()));
        QApplication::processEvents();
        return window->cursor().shape();
    };
    for (void (MainViewController::*const show)() const :
         {&MainViewController::showStopped, &MainViewController::showConnecting}) {
        (form().*show)();
        EXPECT_EQ(shapeOver(*form().emailLine), Qt::ArrowCursor);
        EXPECT_EQ(shapeOver(*form().rememberCheck), Qt::PointingHandCursor);
    }
}

TEST_F(FormTest, APastedLineEndIsNoPartOfTheText)
{
    QApplication::clipboard()->setText(u"se\ncret \r\n"_s);
    form().passwordEdit->setText(u"ab"_s);
    form().passwordEdit->setCursorPosition(1);
    form().passwordEdit->paste();
    EXPECT_EQ(form().passwordEdit->text(), u"asecret b"_s);
    EXPECT_EQ(form().passwordEdit->cursorPosition(), 8);
}

TEST_F(FormTest, NothingIsCutOrCoveredAndTheWindowKeepsItsSizeInEveryLook)
{
    const QSize size = delegate_->window->size();
    EXPECT_LE(size.height(), 440 * form().logicalDpiY() / 96) << "fits a screen of 768 lines at 150 %";
    EXPECT_LE(size.height(), form().screen()->availableGeometry().height());
    for (void (MainViewController::*const show)() const :
         {&MainViewController::showStopped, &MainViewController::showConnecting, &MainViewController::showConnected}) {
        (form().*show)();
        QApplication::sendPostedEvents();
        EXPECT_EQ(delegate_->window->size(), size) << form().connectButton->text().toStdString();
        QRegion taken;
        for (const char *const name :
             {"emblem", "wordmark", "emailEdit", "emailLine", "passwordEdit", "passwordLine", "rememberCheck",
              "rememberText", "connectButton", "signupButton", "helpButton"}) {
            const auto *const child = form().findChild<QWidget *>(QLatin1String(name));
            ASSERT_TRUE(child) << name;
            if (child->parentWidget()->isHidden()) // the heading, on a small screen
                continue;
            const QRect place(child->mapTo(&form(), QPoint()), child->size());
            EXPECT_TRUE(form().rect().contains(place)) << name;
            EXPECT_FALSE(taken.intersects(place)) << name;
            EXPECT_GE(child->width(), child->minimumSizeHint().width()) << name;
            EXPECT_GE(child->height(), child->minimumSizeHint().height()) << name;
            taken += place;
        }
        EXPECT_GT(form().connectButton->width(),
                  form().connectButton->fontMetrics().horizontalAdvance(form().connectButton->text()) + 40);
    }
}

TEST_F(FormTest, TheFocusShowsOnWhateverTheKeyboardReachesAndNotAfterAClick)
{
    for (QWidget *const control : std::initializer_list<QWidget *>{form().rememberCheck, form().connectButton,
                                                                   form().signupButton, form().helpButton}) {
        const QImage without = picture(*control);
        control->setFocus(Qt::TabFocusReason);
        EXPECT_NE(picture(*control), without) << control->objectName().toStdString();
        EXPECT_TRUE(holds(picture(*control), 0xFFFFFFFF)) << control->objectName().toStdString();
    }
    const QImage without = picture(*form().connectButton);
    form().connectButton->setFocus(Qt::MouseFocusReason);
    EXPECT_EQ(picture(*form().connectButton), without);
}

TEST_F(FormTest, TheLabelOfTheCheckBoxTogglesItWhileItIsEnabled)
{
    click(*form().rememberText);
    EXPECT_TRUE(form().rememberCheck->isChecked());
    for (const auto key : {Qt::Key_Return, Qt::Key_Space})
        QTest::keyClick(form().rememberCheck, key);
    EXPECT_TRUE(form().rememberCheck->isChecked());
    form().showConnecting();
    click(*form().rememberText);
    EXPECT_TRUE(form().rememberCheck->isChecked());
}

namespace {

class Browser : public QObject {
    Q_OBJECT
public:
    Browser() { QDesktopServices::setUrlHandler(u"https"_s, this, "open"); }
    ~Browser() override { QDesktopServices::unsetUrlHandler(u"https"_s); }
    QStringList opened;
public slots:
    void open(const QUrl &url) { opened += url.toString(); }
};

} // namespace

TEST_F(FormTest, TheLinksOpenTheWebsitesPagesInEveryLook)
{
    const Browser browser;
    click(*form().signupButton);
    form().showConnected();
    QTest::keyClick(form().helpButton, Qt::Key_Return);
    EXPECT_EQ(browser.opened,
              (QStringList{u"https://www.corvale.example/precios/"_s, u"https://www.corvale.example/soporte/"_s}));
}

#include "form_test.moc"
