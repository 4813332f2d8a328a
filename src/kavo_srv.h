// kavo_srv.h - the server thread's body.
#ifndef KAVO_SRV_H
#define KAVO_SRV_H

// kavo_srv runs a context, `context` being its KAVO, from STARTING until the context is to be closed or the thread
// fails. Returns null.
void *kavo_srv(void *context);

#endif  // KAVO_SRV_H
