/*
 * Host-only additions of the project's two messaging clients: the simulated
 * modem in process (libxalsim) and the client of the modem service
 * (libxalremote). They are not part of a device's messaging client.
 */
#ifndef XAL_HOST_H
#define XAL_HOST_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Waits until a client of this process is connected to the modem's data
 * service and registered for its profile-changed indications (as libkivr is
 * once it has reached the modem, after Manager::init and after every modem
 * restart), or until timeout_msecs have passed. Returns 1 when one is, 0 at
 * the time-out. It waits on the client's state, without polling.
 */
int xal_host_wait_for_registration(unsigned int timeout_msecs);

#ifdef __cplusplus
}
#endif

#endif /* XAL_HOST_H */
