/* The Prometheus text format of a status round and of taviweb's own counters. Names follow
 * Prometheus's conventions: the tavi_ prefix, base units (seconds, celsius, bytes), _total on
 * counters. */

#ifndef TAVIWEB_METRICS_H
#define TAVIWEB_METRICS_H

#include <string>

#include "taviweb_stats.h"
#include "taviweb_status.h"

#define TAVIWEB_METRICS_CONTENT_TYPE "text/plain; version=0.0.4; charset=utf-8"

std::string taviweb_metrics_render(const taviweb_round_t& round, const taviweb_stats_snapshot_t& stats);

/* A label value as the text format writes it: backslash, double quote and line feed escaped. */
std::string taviweb_metrics_label(const std::string& value);

#endif
