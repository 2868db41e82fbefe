/* The driver extension's name. C and C++. */
#ifndef KIV_DRIVER_SERVICE_H
#define KIV_DRIVER_SERVICE_H

/* Name of the services that the driver publishes, one for each PCI function of a card. */
#define KIV_DRIVER_SERVICE_NAME "kivPCIService"

#endif
