#pragma once

#include <Qt>

class QWidget;

/// The keyboard focus mark of a control: a 2 px white ring with a 2 px dark gap inside it, so that
/// it stands out on an orange face too. It shows once the keyboard is used, not after a click.
class FocusRing final
{
public:
    /// Pixels that a control's own margin has to leave free for the ring and its gap.
    static constexpr int width = 4;

    /// To be called from focusInEvent with the event's reason.
    void focusIn(Qt::FocusReason reason);
    void focusOut() { m_shown = false; }
    /// To be called for every key that the focused control gets.
    void keyPressed() { m_shown = true; }
    bool isShown() const { return m_shown; }
    /// Paints the ring along the inner edge of `widget`; to be called at the end of paintEvent.
    void paint(QWidget& widget) const;

private:
    bool m_shown = false;
};
