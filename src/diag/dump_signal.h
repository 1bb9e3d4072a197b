#pragma once

class cRouteMgrService;

// The running service, for the SIGUSR1 dump. Set by Run, never reset.
extern cRouteMgrService* g_service;

void SignalHandler(int signo);
// Sets g_service and installs the SIGUSR1 handler; the dump itself is
// written by the loop between two messages.
void InstallDumpSignal(cRouteMgrService* service);
