#pragma once

// Starts the runtime modules in their fixed order; each step relies on the ones before it.
// Nothing is ever shut down: the process end releases everything.
void bring_up_modules();
