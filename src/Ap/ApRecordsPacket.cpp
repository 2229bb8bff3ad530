#include "Ap/ApRecordsPacket.h"

#include <limits>

int I_PACKET_COUNTS::Swap()
{
    AP_SWAP(nbrConnections);
    AP_SWAP(nbrIngress);
    AP_SWAP(nbrEgress);
    return 1;
}

int I_PACKET_STATUS::Swap()
{
    AP_SWAP(connectionId);
    AP_SWAP(state);
    AP_SWAP(reason);
    return 1;
}

int I_PACKET_ASSOCIATION::Swap()
{
    AP_SWAP(associationId);
    AP_SWAP(ingressId);
    AP_SWAP(egressId);
    AP_SWAP(filterId);
    AP_SWAP(state);
    AP_SWAP(priority);
    created.Swap();
    AP_SWAP(domainId);
    AP_SWAP(impairmentId);
    AP_SWAP(connectionId);
    AP_SWAP(matchedFrames);
    AP_SWAP(matchedBytes);
    return 1;
}

unsigned int I_PACKET_ASSOCIATION_EVT::sizeofThis(unsigned int nbrTrunks)
{
    const std::uint64_t base = sizeof(I_PACKET_ASSOCIATION_EVT);
    if (nbrTrunks == 0) return static_cast<unsigned int>(base);
    const std::uint64_t size = base + sizeof(std::uint16_t) * (std::uint64_t{nbrTrunks} - 1);
    const std::uint64_t cap = std::numeric_limits<unsigned int>::max();
    return static_cast<unsigned int>(size < cap ? size : cap);
}

int I_PACKET_ASSOCIATION_EVT::Swap()
{
    association.Swap();
    AP_SWAP(nbrTrunks);
    AP_SWAP(trunkIds[0]);
    return 1;
}

int I_PACKET_ASSOCIATION_EVT::Swap(unsigned int count)
{
    Swap();
    // Ids past the declared element are reached through bytes: the storage
    // is the caller's, not this object's.
    unsigned char* tail = reinterpret_cast<unsigned char*>(this) + sizeof(*this);
    for (unsigned int i = 1; i < count; ++i, tail += sizeof(std::uint16_t)) {
        std::uint16_t id;
        std::memcpy(&id, tail, sizeof id);
        id = swaps(id);
        std::memcpy(tail, &id, sizeof id);
    }
    return 1;
}

int I_INGRESS::Swap()
{
    AP_SWAP(ingressId);
    AP_SWAP(ingressType);
    AP_SWAP(lineType);
    AP_SWAP(nbrMembers);
    for (auto& m : members) m.Swap();
    AP_SWAP(filterId);
    AP_SWAP(domainId);
    AP_SWAP(vlanId);
    created.Swap();
    AP_SWAP(partitionId);
    AP_SWAP(rxFrames);
    AP_SWAP(rxBytes);
    AP_SWAP(dropped);
    return 1;
}

int I_SUPERINGRESS::Swap()
{
    AP_SWAP(superIngressId);
    AP_SWAP(nbrIngress);
    AP_SWAP_EACH(ingressIds);
    AP_SWAP(domainId);
    created.Swap();
    AP_SWAP(vlanId);
    return 1;
}

int I_FILTER::Swap()
{
    AP_SWAP(filterId);
    AP_SWAP(filterType);
    AP_SWAP(action);
    AP_SWAP(nbrRules);
    AP_SWAP_EACH(ruleIds);
    AP_SWAP(domainId);
    modified.Swap();
    AP_SWAP(matchedFrames);
    AP_SWAP(egressId);
    AP_SWAP(priority);
    return 1;
}

int I_FILTER_MEMBER::Swap()
{
    AP_SWAP(filterId);
    AP_SWAP(ruleId);
    AP_SWAP(position);
    return 1;
}

int I_SUPERFILTER::Swap()
{
    AP_SWAP(superFilterId);
    AP_SWAP(combineMode);
    AP_SWAP(nbrFilters);
    AP_SWAP_EACH(filterIds);
    AP_SWAP(domainId);
    modified.Swap();
    AP_SWAP_EACH(matchedFrames);
    AP_SWAP(priority);
    AP_SWAP(egressId);
    return 1;
}

int I_EGRESS::Swap()
{
    AP_SWAP(egressId);
    AP_SWAP(egressType);
    AP_SWAP(lineType);
    AP_SWAP(nbrMembers);
    AP_SWAP(domainId);
    AP_SWAP(filterId);
    created.Swap();
    AP_SWAP(txFrames);
    AP_SWAP(txBytes);
    AP_SWAP(vlanId);
    AP_SWAP(partitionId);
    AP_SWAP(mtu);
    return 1;
}

int I_SUPEREGRESS::Swap()
{
    AP_SWAP(superEgressId);
    AP_SWAP(nbrEgress);
    AP_SWAP_EACH(egressIds);
    AP_SWAP(domainId);
    created.Swap();
    AP_SWAP(hashMode);
    return 1;
}

int I_RULE::Swap()
{
    AP_SWAP(ruleId);
    AP_SWAP(ruleType);
    AP_SWAP(srcPortLow);
    AP_SWAP(srcPortHigh);
    AP_SWAP(dstPortLow);
    AP_SWAP(dstPortHigh);
    AP_SWAP(vlanLow);
    AP_SWAP(vlanHigh);
    AP_SWAP(etherType);
    AP_SWAP(domainId);
    AP_SWAP(mplsLabel);
    return 1;
}

int I_DPI_PROTOCOL::Swap()
{
    AP_SWAP(protocolId);
    AP_SWAP(nbrEntries);
    AP_SWAP_EACH(ports);
    AP_SWAP(domainId);
    modified.Swap();
    AP_SWAP(matchedFrames);
    AP_SWAP(category);
    AP_SWAP(appId);
    return 1;
}

int I_DPI_PROTOCOL_ENTRY::Swap()
{
    AP_SWAP(protocolId);
    AP_SWAP(entryNbr);
    AP_SWAP(portLow);
    AP_SWAP(portHigh);
    return 1;
}

int I_PORT_STATISTICS::Swap()
{
    port.Swap();
    AP_SWAP(intervalSec);
    sampled.Swap();
    AP_SWAP(rxFrames);
    AP_SWAP(txFrames);
    AP_SWAP(rxBytes);
    AP_SWAP(txBytes);
    AP_SWAP(rxUnicast);
    AP_SWAP(rxMulticast);
    AP_SWAP(rxBroadcast);
    AP_SWAP(txUnicast);
    AP_SWAP(txMulticast);
    AP_SWAP(txBroadcast);
    AP_SWAP(rxCrcErrors);
    AP_SWAP(rxUndersize);
    AP_SWAP(rxOversize);
    AP_SWAP(rxFragments);
    AP_SWAP(rxJabbers);
    AP_SWAP(rxDrops);
    AP_SWAP(txDrops);
    AP_SWAP(txErrors);
    AP_SWAP_EACH(rxSizeBins);
    AP_SWAP_EACH(txSizeBins);
    AP_SWAP(rxPause);
    AP_SWAP(txPause);
    AP_SWAP(linkDowns);
    AP_SWAP(symbolErrors);
    AP_SWAP(rxUtilizationPct);
    AP_SWAP(txUtilizationPct);
    return 1;
}

int I_TRAFFIC_COUNTERS::Swap()
{
    AP_SWAP(objectId);
    AP_SWAP(rxFrames);
    AP_SWAP(txFrames);
    AP_SWAP(rxBytes);
    AP_SWAP(txBytes);
    AP_SWAP(drops);
    AP_SWAP(rxUtilizationPct);
    AP_SWAP(txUtilizationPct);
    return 1;
}

int I_THRESHOLD::Swap()
{
    AP_SWAP(thresholdId);
    AP_SWAP(statistic);
    AP_SWAP(low);
    AP_SWAP(high);
    AP_SWAP(intervalSec);
    port.Swap();
    lastCrossed.Swap();
    AP_SWAP(crossCount);
    return 1;
}

int I_UTILIZATION::Swap()
{
    AP_SWAP(utilizationId);
    port.Swap();
    AP_SWAP(intervalSec);
    sampled.Swap();
    AP_SWAP(rxPct);
    AP_SWAP(txPct);
    AP_SWAP(rxPeakPct);
    AP_SWAP(txPeakPct);
    AP_SWAP(rxBitsPerSec);
    AP_SWAP(txBitsPerSec);
    AP_SWAP_EACH(rxHistory);
    AP_SWAP_EACH(txHistory);
    AP_SWAP(thresholdPct);
    return 1;
}

int I_PCE_PORT::Swap()
{
    AP_SWAP(pceId);
    port.Swap();
    AP_SWAP(state);
    AP_SWAP(speedMbps);
    AP_SWAP(mtu);
    AP_SWAP(nbrQueues);
    AP_SWAP(flags);
    return 1;
}

int I_PCE_STATISTICS::Swap()
{
    AP_SWAP(pceId);
    sampled.Swap();
    AP_SWAP(cpuPct);
    AP_SWAP(memoryPct);
    AP_SWAP(rxFrames);
    AP_SWAP(txFrames);
    AP_SWAP(rxBytes);
    AP_SWAP(txBytes);
    AP_SWAP(rxDrops);
    AP_SWAP(txDrops);
    AP_SWAP(matchedFrames);
    AP_SWAP(unmatchedFrames);
    AP_SWAP(dedupDrops);
    AP_SWAP(truncated);
    AP_SWAP(sliced);
    AP_SWAP(timestamped);
    AP_SWAP(hashCollisions);
    AP_SWAP(bufferOverruns);
    AP_SWAP(tunnelsTerminated);
    AP_SWAP(reassembled);
    AP_SWAP(fragmentsDropped);
    AP_SWAP(sessionsOpened);
    AP_SWAP(sessionsClosed);
    AP_SWAP_EACH(queueFrames);
    AP_SWAP_EACH(queueDrops);
    return 1;
}

int I_XSL_TRUNK::Swap()
{
    AP_SWAP(trunkId);
    AP_SWAP(remoteSwitchId);
    AP_SWAP(nbrMembers);
    AP_SWAP(vlanId);
    AP_SWAP(alarmThresholdPct);
    created.Swap();
    AP_SWAP(txFrames);
    AP_SWAP(rxFrames);
    AP_SWAP(txBytes);
    AP_SWAP(rxBytes);
    AP_SWAP_EACH(memberSlots);
    AP_SWAP_EACH(memberPorts);
    AP_SWAP(domainId);
    AP_SWAP(mtu);
    return 1;
}

int I_IMPAIRMENT::Swap()
{
    AP_SWAP(impairmentId);
    AP_SWAP(impairmentType);
    AP_SWAP(delayMs);
    AP_SWAP(jitterMs);
    AP_SWAP(lossPct);
    AP_SWAP(duplicatePct);
    AP_SWAP(reorderPct);
    AP_SWAP(corruptPct);
    AP_SWAP(bandwidthKbps);
    AP_SWAP(domainId);
    modified.Swap();
    AP_SWAP(burstSize);
    AP_SWAP(impairedFrames);
    AP_SWAP(seed);
    return 1;
}

int I_PACKET_FIELD::Swap()
{
    AP_SWAP(byteOffset);
    AP_SWAP(mode);
    AP_SWAP(value);
    AP_SWAP(step);
    return 1;
}

int I_PACKET_FRAME::Swap()
{
    AP_SWAP(length);
    AP_SWAP(flags);
    AP_SWAP(repeatCount);
    return 1;
}

int I_PACKET_DEFINITION::Swap()
{
    AP_SWAP(packetDefId);
    AP_SWAP(protocolStack);
    AP_SWAP(frameLength);
    AP_SWAP(nbrFields);
    AP_SWAP(nbrFrames);
    for (auto& f : fields) f.Swap();
    for (auto& f : frames) f.Swap();
    AP_SWAP(domainId);
    modified.Swap();
    return 1;
}

int I_STREAM::Swap()
{
    AP_SWAP(streamId);
    AP_SWAP(packetDefId);
    AP_SWAP(nbrMembers);
    AP_SWAP(rateMode);
    AP_SWAP(rate);
    AP_SWAP(burstSize);
    AP_SWAP(loopCount);
    port.Swap();
    started.Swap();
    AP_SWAP(framesSent);
    AP_SWAP(bytesSent);
    AP_SWAP(domainId);
    AP_SWAP(generatorId);
    return 1;
}

int I_PROBE::Swap()
{
    AP_SWAP(probeId);
    AP_SWAP(probeType);
    AP_SWAP(state);
    AP_SWAP(nbrMembers);
    for (auto& p : ports) p.Swap();
    AP_SWAP(rovTimeSec);
    activated.Swap();
    AP_SWAP(domainId);
    return 1;
}

int I_SERVER_CLOCK::Swap()
{
    now.Swap();
    AP_SWAP(utcOffsetMin);
    AP_SWAP(nbrServers);
    AP_SWAP(stratum);
    AP_SWAP(offsetMs);
    AP_SWAP(jitterMs);
    return 1;
}

int I_SYSTEM_PARAMETERS::Swap()
{
    AP_SWAP(ipAddress);
    AP_SWAP(subnetMask);
    AP_SWAP(gateway);
    AP_SWAP_EACH(dnsServers);
    AP_SWAP_EACH(ntpServers);
    AP_SWAP(httpPort);
    AP_SWAP(httpsPort);
    AP_SWAP(cliPort);
    AP_SWAP(restPort);
    AP_SWAP(restsPort);
    AP_SWAP(snmpPort);
    AP_SWAP_EACH(trapDestinations);
    AP_SWAP(sessionTimeoutMin);
    AP_SWAP(logLevel);
    AP_SWAP_EACH(statsIntervalsSec);
    AP_SWAP(diskQuotaBytes);
    AP_SWAP(cpuAlarmPct);
    AP_SWAP(memoryAlarmPct);
    AP_SWAP(diskAlarmPct);
    return 1;
}

int I_STICKY_NOTE::Swap()
{
    AP_SWAP(noteId);
    AP_SWAP(objectType);
    AP_SWAP(objectId);
    created.Swap();
    modified.Swap();
    AP_SWAP(color);
    return 1;
}

int I_DEVICE::Swap()
{
    AP_SWAP(deviceId);
    AP_SWAP(deviceType);
    AP_SWAP(nbrMembers);
    AP_SWAP(ipAddress);
    AP_SWAP(domainId);
    added.Swap();
    AP_SWAP(appId);
    return 1;
}

int I_PACKET_RESERVATION::Swap()
{
    AP_SWAP(reservationId);
    start.Swap();
    end.Swap();
    AP_SWAP(state);
    AP_SWAP(repeatMode);
    AP_SWAP(nbrResources);
    AP_SWAP_EACH(resourceIds);
    AP_SWAP(domainId);
    created.Swap();
    AP_SWAP(reportId);
    AP_SWAP(priority);
    return 1;
}

int I_REMOTE_SERVER::Swap()
{
    AP_SWAP(serverId);
    AP_SWAP(port);
    AP_SWAP(state);
    lastContact.Swap();
    AP_SWAP(timeoutSec);
    return 1;
}

int I_REMOTE_EXEC::Swap()
{
    AP_SWAP(execId);
    AP_SWAP(serverId);
    started.Swap();
    finished.Swap();
    AP_SWAP(exitCode);
    AP_SWAP(state);
    AP_SWAP(timeoutSec);
    AP_SWAP(outputLength);
    return 1;
}

int I_APP_STATUS::Swap()
{
    AP_SWAP(appId);
    AP_SWAP(state);
    return 1;
}

int I_DEVICE_APP::Swap()
{
    AP_SWAP(appId);
    AP_SWAP(deviceId);
    AP_SWAP(state);
    AP_SWAP(port);
    AP_SWAP(memoryKb);
    AP_SWAP(cpuPct);
    installed.Swap();
    started.Swap();
    return 1;
}
