#pragma once

#include "../kit/QKGlobalKit.h"

class QKFeedbackSendViewController;

/// Told when the user presses "Send" on the send screen.
class MURMORA_EXPORT QKFeedbackSendViewControllerDelegate
{
public:
    virtual ~QKFeedbackSendViewControllerDelegate() = default;
    virtual void sendViewControllerAction(QKFeedbackSendViewController *sendScreen) = 0;
};
