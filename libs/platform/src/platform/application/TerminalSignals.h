#pragma once

namespace platform {

class Application;

/// Takes SIGTSTP and SIGCONT over and starts the thread that turns them into the notifications of
/// `application`, which must live for the rest of the process. A second call changes nothing. A SIGTSTP that
/// the process was started to ignore stays ignored.
void startTerminalSignals(Application& application);

} // namespace platform
