/*
 * zt_usb.h - the unit's USB gadget bulk driver, as seen through its character device.
 *
 * read() blocks until the host has sent something and returns what has come, up to the size asked
 * for; write() sends to the host, and waits while the host reads nothing. With the cable out read()
 * goes on waiting, while write() fails: the thread that writes is also the one that asks for the
 * cable's state. Both return early with EINTR when a signal comes.
 */
#ifndef PLATFORM_ZT_USB_H
#define PLATFORM_ZT_USB_H

/* The node. */
#define ZT_USB_NODE "/dev/zt-usb"

/* ioctl request that fills an int: non-zero when the cable is plugged in. */
#define ZTG_LINK_STATUS 0x40046C02UL

#endif
