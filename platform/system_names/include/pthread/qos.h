#ifndef PTHREAD_QOS_H
#define PTHREAD_QOS_H

typedef unsigned int qos_class_t;
#define QOS_CLASS_USER_INTERACTIVE ((qos_class_t)0x21)

#ifdef __cplusplus
extern "C" {
#endif

/* Quality of service of the calling thread. Linux has no such classes: always 0, no effect. */
int pthread_set_qos_class_self_np(qos_class_t qos_class, int relative_priority);

#ifdef __cplusplus
}
#endif

#endif
