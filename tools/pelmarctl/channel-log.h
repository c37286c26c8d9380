// The channel's and the endpoint's own log lines.
#ifndef PELMARCTL_CHANNEL_LOG_H
#define PELMARCTL_CHANNEL_LOG_H

// From now on they go to standard error; before they are dropped.
void ShowChannelLog();

#endif
