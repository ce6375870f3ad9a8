// Faults and console signals end in this layer as numbered fatal messages.
#include <csignal>
#include <cstring>
#include <initializer_list>

#include "runtime/msg.h"

const char* msg_exception_name(int signal_number, int signal_code)
{
    switch (signal_number) {
    case SIGSEGV: return "access violation";
    case SIGBUS: return "datatype misalignment";
    case SIGILL: return "illegal instruction";
    case SIGFPE:
        switch (signal_code) {
        case FPE_INTDIV: return "integer divide by zero";
        case FPE_INTOVF: return "interger overflow";  // the misspelling is the system's text
        case FPE_FLTDIV: return "float divide by zero";
        case FPE_FLTOVF: return "float overflow";
        case FPE_FLTUND: return "float under flow";
        case FPE_FLTRES: return "float inexact result";
        case FPE_FLTINV: return "float invalid op";
        default: return "unknown";
        }
    default: return "unknown";
    }
}

const char* msg_console_signal_name(int signal_number)
{
    switch (signal_number) {
    case SIGINT: return "control c";
    case SIGQUIT: return "control break";
    case SIGHUP: return "console window closing";
    case SIGTERM: return "system shutting down";
    default: return nullptr;
    }
}

namespace {

void on_fault(int signal_number, siginfo_t* info, void*)
{
    msg_fatal_n(500, "%s 0x%08x (%s) ", "interrupted by exception code", unsigned(signal_number),
                msg_exception_name(signal_number, info ? info->si_code : 0));
}

// Installed only for the signals that have a name.
void on_console_signal(int signal_number, siginfo_t*, void*)
{
    msg_fatal_n(503, "%s (%s) ", "interrupted by console signal:", msg_console_signal_name(signal_number));
}

void install(int signal_number, void (*handler)(int, siginfo_t*, void*))
{
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    sigaction(signal_number, &action, nullptr);
}

}  // namespace

void msg_install_signal_handlers()
{
    for (int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE})
        install(fault, on_fault);
    for (int console_signal : {SIGINT, SIGQUIT, SIGHUP, SIGTERM})
        install(console_signal, on_console_signal);
}
