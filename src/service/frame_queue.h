// The frame builders bound to the driver: frames go onto driver.frameQueue.
#ifndef SERVICE_FRAME_QUEUE_H
#define SERVICE_FRAME_QUEUE_H

#include "vorn_kq71_ap.h"

void handShakeFrame();
// Queues the read frame of the first job of list; 0 when none could be built.
int getReadFrame(const QList<VARIABLE> &list);
void getWriteFrame(VARIABLE &v);
// Rates a reply against the head of the frame queue (0 bad, 1 read, 2 write).
int check_rcv_data(const unsigned char *bytes, const QList<VARIABLE> &list, int length);

#endif
