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
#include <QScreen>
#include <QSignalSpy>
#include <QTest>
#include <QTextBrowser>

using namespace Qt::StringLiterals;

namespace {

const QString background = u"#282c35"_s;
const QString grey = u"#9d9ea2"_s;
const QString white = u"#ffffff"_s;

/// Title, its colour, the button's colour at its left end, whether the form is enabled, the label's colour.
using Look = std::tuple<QString, QString, QString, bool, QString>;
const Look stopped{u"Conectar"_s, grey, u"#22262e"_s, true, white};
const Look connecting{u"Conectando..."_s, grey, u"#22262e"_s, false, grey};
const Look connected{u"Desconectar"_s, white, u"#1a7e50"_s, false, grey};

constexpr auto looks = {&MainViewController::showStopped, &MainViewController::showConnecting,
                        &MainViewController::showConnected};

QImage picture(QWidget &widget)
{
    return widget.grab().toImage();
}

/// Whether the widget has a pixel of this colour on the screen.
bool shows(QWidget &widget, const QString &color)
{
    const QImage image = picture(widget);
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            if (image.pixel(x, y) == QColor(color).rgb())
                return true;
    return false;
}

class FormTest : public UiTest {
protected:
    FormTest() { launch(); }

    /// The form as it is on the screen. Fails when the locked controls or the two titles differ from each other.
    Look look()
    {
        TitleButton &button = *form().connectButton;
        const bool enabled = form().emailEdit->isEnabled();
        EXPECT_EQ(form().passwordEdit->isEnabled(), enabled);
        EXPECT_EQ(form().rememberCheck->isEnabled(), enabled);
        EXPECT_TRUE(button.isEnabled());
        EXPECT_EQ(delegate_->connectItem->text(), button.text());
        const QString title = button.palette().buttonText().color().name();
        const QString label = form().rememberText->palette().windowText().color().name();
        EXPECT_TRUE(shows(button, title));
        EXPECT_TRUE(shows(*form().rememberText, label));
        const QImage image = picture(button);
        return {button.text(), title, image.pixelColor(image.height() / 2, image.height() / 2).name(), enabled, label};
    }
};

} // namespace

TEST_F(FormTest, ThePointerIsAHandWhereAClickDoesSomethingAndTheLabelSetsTheCheckBoxWhileItIsEnabled)
{
    EXPECT_EQ(look(), stopped);
    for (const auto *const button : form().findChildren<QAbstractButton *>())
        EXPECT_EQ(button->cursor().shape(), Qt::PointingHandCursor) << button->objectName().toStdString();
    // A disabled check box does not choose the pointer: its parent does.
    EXPECT_EQ(form().rememberCheck->parentWidget()->cursor().shape(), Qt::PointingHandCursor);
    EXPECT_EQ(form().emailLine->cursor().shape(), Qt::ArrowCursor);
    click(*form().rememberText);
    EXPECT_TRUE(form().rememberCheck->isChecked());
    form().showConnecting();
    click(*form().rememberText);
    EXPECT_TRUE(form().rememberCheck->isChecked());
}

TEST_F(FormTest, TheColoursOnTheScreenAreThePalette)
{
    const QImage whole = picture(form());
    const auto middle = [&](const QWidget &of) {
        return whole.pixelColor(of.mapTo(&form(), of.rect().center()) * whole.devicePixelRatio()).name();
    };
    EXPECT_EQ(whole.pixelColor(2, 2).name(), background);
    EXPECT_EQ(middle(*form().emailLine), grey);
    EXPECT_EQ(middle(*form().passwordLine), grey);
    EXPECT_TRUE(shows(*form().signupButton, grey) && shows(*form().helpButton, grey));

    for (const auto &[field, name] :
         {std::pair{form().emailEdit, u"Email"_s}, {form().passwordEdit, u"Contraseña"_s}}) {
        EXPECT_EQ(field->placeholderText(), name);
        EXPECT_EQ(field->accessibleName(), name);
        EXPECT_EQ(field->font().pointSize(), 13);
        field->setFocus();
        EXPECT_TRUE(shows(*field, grey)) << "placeholder";
        EXPECT_TRUE(shows(*field, white)) << "caret";
        const QImage focused = picture(*field); // without a frame or a ring, so its edge is the background
        for (int x = 0; x < focused.width(); ++x)
            EXPECT_EQ(focused.pixelColor(x, 0).name(), background);
        EXPECT_EQ(focused.pixelColor(focused.width() - 1, focused.height() / 2).name(), background);
    }
}

TEST_F(FormTest, EveryStateNameHasTheLookOfItsClassAndAnUnknownOneNone)
{
    const QString connectingNames = u"USER_VPN_PERMISSION VPN_GENERATE_CONFIG NONETWORK CONNECTING WAIT RECONNECTING "
                                    "RESOLVE TCP_CONNECT AUTH GET_CONFIG ASSIGN_IP ADD_ROUTES"_s;
    for (const auto &[names, expected] : {std::pair{u"CONNECTED"_s, connected},
                                          {connectingNames, connecting},
                                          {u"DISCONNECTED EXITING NOPROCESS"_s, stopped}}) {
        for (const QString &name : names.split(u' ')) {
            expected == stopped ? form().showConnected() : form().showStopped();
            OpenVPNService::shared().setState(u"NOPROCESS"_s); // a connected tunnel would ignore some of them
            announce(name);
            EXPECT_EQ(look(), expected) << name.toStdString();
        }
        announce(u"WAIT "_s);
        EXPECT_EQ(look(), expected);
    }
}

TEST_F(FormTest, AnEmptyFieldIsRefusedInTheOrderOfTheForm)
{
    const std::function<void()> ways[] = {
        [this] { QTest::keyClick(form().emailEdit, Qt::Key_Return); },
        [this] { QTest::keyClick(form().passwordEdit, Qt::Key_Enter); },
        [this] { QTest::keyClick(form().connectButton, Qt::Key_Return); },
        [this] { click(*form().connectButton); },
        [this] { delegate_->connectItem->trigger(); },
    };
    for (const auto &[email, password] : {std::pair{u""_s, u""_s}, {u""_s, u"secret"_s}, {u"a@b.example"_s, u""_s}})
        for (const auto &submit : ways) {
            SCOPED_TRACE(&submit - ways);
            type(email, password);
            submit();
            EXPECT_EQ(nextAlert(),
                      email.isEmpty() ? u"Email should not be empty!"_s : u"Password should not be empty!"_s);
            EXPECT_EQ(look(), stopped);
            EXPECT_EQ(delegate_->window->focusWidget(), email.isEmpty() ? form().emailEdit : form().passwordEdit);
        }
}

TEST_F(FormTest, AlertsAreSheetsThatWaitForEachOtherAndBringTheWindowBack)
{
    const QString message = u"Email o Contraseña & <b>inválidos</b>"_s;
    QMainWindow &window = *delegate_->window;
    window.close();
    form().showAlert(message);
    form().showAlert(u"second"_s);
    EXPECT_EQ(window.findChildren<QMessageBox *>().size(), 1);
    EXPECT_TRUE(window.isVisible());

    QMessageBox &box = *alert();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&box));
    EXPECT_EQ(box.text(), message);
    EXPECT_EQ(box.textFormat(), Qt::PlainText);
    EXPECT_EQ(box.icon(), QMessageBox::Critical);
    EXPECT_EQ(box.windowModality(), Qt::WindowModal);
    EXPECT_TRUE(window.geometry().contains(box.geometry()));
    EXPECT_LE((window.geometry().center() - box.geometry().center()).manhattanLength(), 2);
    for (const QLabel *const label : box.findChildren<QLabel *>())
        EXPECT_GE(label->height(), label->heightForWidth(label->width())) << "text that is cut";
    EXPECT_EQ(box.standardButtons(), QMessageBox::Ok);
    EXPECT_EQ(box.button(QMessageBox::Ok)->cursor().shape(), Qt::PointingHandCursor);

    QTest::keyClick(&box, Qt::Key_Return);
    EXPECT_EQ(nextAlert(), u"second"_s);
    EXPECT_EQ(alert(), nullptr);

    window.showMinimized();
    form().showAlert(u"third"_s);
    EXPECT_FALSE(window.isMinimized());
    EXPECT_EQ(nextAlert(), u"third"_s);
}

TEST_F(FormTest, APastedTextLosesItsLineEndsAndAPasswordIsNotReadable)
{
    QApplication::clipboard()->setText(u"se\ncret \r\n"_s);
    type(u"ab"_s, u"ab"_s);
    for (TextField *const field : {form().emailEdit.get(), form().passwordEdit.get()}) {
        field->setCursorPosition(1);
        field->paste();
        EXPECT_EQ(field->text(), u"asecret b"_s);
        EXPECT_EQ(field->cursorPosition(), 8);
    }
    EXPECT_EQ(form().emailEdit->displayText(), u"asecret b"_s);
    EXPECT_EQ(form().passwordEdit->displayText().remove(form().passwordEdit->displayText().front()), QString());
}

TEST_F(FormTest, NothingIsCutOrCoveredAndTheWindowKeepsItsSizeInEveryLook)
{
    const QSize size = delegate_->window->size();
    EXPECT_LE(size.height(), 440 * form().logicalDpiY() / 96) << "fits a screen of 768 lines at 150 %";
    EXPECT_LE(size.height(), form().screen()->availableGeometry().height());
    for (const auto show : looks) {
        (form().*show)();
        QApplication::sendPostedEvents();
        const TitleButton &button = *form().connectButton;
        SCOPED_TRACE(button.text().toStdString());
        EXPECT_EQ(delegate_->window->size(), size);
        EXPECT_EQ(delegate_->window->maximumSize(), size);
        EXPECT_GT(button.width(), button.fontMetrics().horizontalAdvance(button.text()) + 40);
        QRegion covered;
        for (const auto *const child : form().findChildren<QWidget *>()) {
            if (!child->isVisible() || child->findChild<QWidget *>()) // a small screen has no heading
                continue;
            const QRect rect(child->mapTo(&form(), QPoint()), child->size());
            EXPECT_TRUE(form().rect().contains(rect)) << child->objectName().toStdString();
            EXPECT_FALSE(covered.intersects(rect)) << child->objectName().toStdString();
            EXPECT_EQ(child->size(), child->size().expandedTo(child->minimumSizeHint()))
                << child->objectName().toStdString();
            covered += rect;
        }
    }
}

TEST_F(FormTest, TheKeyboardsFocusShowsOnEveryControlAndThatOfAClickDoesNot)
{
    const QList<QWidget *> controls{form().rememberCheck, form().connectButton, form().signupButton, form().helpButton};
    for (QWidget *const control : controls) {
        const QImage without = picture(*control);
        control->setFocus(Qt::TabFocusReason);
        EXPECT_NE(picture(*control), without) << control->objectName().toStdString();
        EXPECT_TRUE(shows(*control, white)) << control->objectName().toStdString();
    }
    const QImage without = picture(*form().connectButton);
    form().connectButton->setFocus(Qt::MouseFocusReason);
    EXPECT_EQ(picture(*form().connectButton), without);
}

TEST_F(FormTest, TheLinksOpenTheWebsitesPagesInEveryLook)
{
    QTextBrowser browser; // its signal keeps the addresses
    const QSignalSpy opened(&browser, &QTextBrowser::anchorClicked);
    QDesktopServices::setUrlHandler(u"https"_s, &browser, "anchorClicked");
    EXPECT_EQ(form().signupButton->text(), u"Registrarme"_s);
    EXPECT_EQ(form().helpButton->text(), u"Ayuda"_s);
    for (const auto show : looks) {
        (form().*show)();
        click(*form().signupButton);
        QTest::keyClick(form().helpButton, Qt::Key_Return);
    }
    QDesktopServices::unsetUrlHandler(u"https"_s);
    ASSERT_EQ(opened.size(), 6);
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(opened[i][0].toUrl().toString(),
                  u"https://www.corvale.example/"_s + (i % 2 == 0 ? u"precios/"_s : u"soporte/"_s));
}
