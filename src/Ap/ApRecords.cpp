#include "Ap/ApRecords.h"

// Each Swap lists the record's multi-byte fields in declaration order;
// bytes and character arrays are left out on purpose.

int I_PORT_ADDR::Swap()
{
    AP_SWAP(switchNbr);
    AP_SWAP(slotNbr);
    AP_SWAP(portNbr);
    AP_SWAP(subportNbr);
    return 1;
}

int I_TIME_STAMP::Swap()
{
    AP_SWAP(seconds);
    AP_SWAP(microseconds);
    return 1;
}

int I_MEMBER::Swap()
{
    AP_SWAP(ownerId);
    AP_SWAP(position);
    member.Swap();
    return 1;
}

int I_REF_MEMBER::Swap()
{
    AP_SWAP(ownerId);
    AP_SWAP(memberId);
    AP_SWAP(position);
    AP_SWAP(memberType);
    AP_SWAP(flags);
    AP_SWAP(state);
    return 1;
}

int I_ORDERED_MEMBER::Swap()
{
    AP_SWAP(ownerId);
    AP_SWAP(memberId);
    AP_SWAP(position);
    AP_SWAP(priority);
    added.Swap();
    AP_SWAP(flags);
    return 1;
}

int I_PROGRESS::Swap()
{
    AP_SWAP(done);
    AP_SWAP(total);
    return 1;
}

int I_SWITCH::Swap()
{
    AP_SWAP(switchId);
    AP_SWAP(ipAddress);
    AP_SWAP(subnetMask);
    AP_SWAP(gateway);
    AP_SWAP(tcpPort);
    AP_SWAP(state);
    AP_SWAP(mode);
    AP_SWAP(nbrSlots);
    AP_SWAP(nbrPorts);
    AP_SWAP(nbrConnections);
    bootTime.Swap();
    lastChange.Swap();
    AP_SWAP(uptimeMs);
    AP_SWAP(temperature);
    AP_SWAP_EACH(alarmCounts);
    return 1;
}

int I_PIM::Swap()
{
    AP_SWAP(pimId);
    AP_SWAP(slotNbr);
    AP_SWAP(pimNbr);
    AP_SWAP(state);
    AP_SWAP(adminState);
    AP_SWAP(nbrPorts);
    AP_SWAP(speedMbps);
    AP_SWAP(temperature);
    AP_SWAP(voltage);
    inserted.Swap();
    AP_SWAP(powerOnHours);
    return 1;
}

int I_PORT::Swap()
{
    addr.Swap();
    AP_SWAP(portId);
    AP_SWAP(portType);
    AP_SWAP(lineType);
    AP_SWAP(speedMbps);
    AP_SWAP(adminState);
    AP_SWAP(operState);
    AP_SWAP(mtu);
    AP_SWAP(vlanId);
    AP_SWAP(rxPowerDbm);
    AP_SWAP(txPowerDbm);
    AP_SWAP(temperature);
    AP_SWAP(sfpWavelengthNm);
    AP_SWAP(connectionId);
    AP_SWAP(groupId);
    AP_SWAP(domainId);
    lastStateChange.Swap();
    AP_SWAP(rxFrames);
    AP_SWAP(txFrames);
    AP_SWAP(rxBytes);
    AP_SWAP(txBytes);
    AP_SWAP(rxErrors);
    AP_SWAP(txErrors);
    AP_SWAP_EACH(subportIds);
    AP_SWAP(nbrSubports);
    return 1;
}

int I_SUBPORT_ENTRY::Swap()
{
    AP_SWAP(subportNbr);
    AP_SWAP(subportId);
    AP_SWAP(speedMbps);
    AP_SWAP(adminState);
    AP_SWAP(operState);
    AP_SWAP(connectionId);
    AP_SWAP(groupId);
    AP_SWAP(rxPowerDbm);
    AP_SWAP(txPowerDbm);
    return 1;
}

int I_SUBPORT::Swap()
{
    port.Swap();
    AP_SWAP(portId);
    AP_SWAP(breakoutMode);
    AP_SWAP(lineType);
    AP_SWAP(nbrSubports);
    // Every slot is converted, used or not: the count may be in either order.
    for (auto& s : subports) s.Swap();
    return 1;
}

int I_BOARD_INFO::Swap()
{
    AP_SWAP(slotNbr);
    AP_SWAP(boardType);
    AP_SWAP(state);
    AP_SWAP(nbrPorts);
    AP_SWAP(temperature);
    AP_SWAP(voltage);
    bootTime.Swap();
    AP_SWAP(uptimeMs);
    AP_SWAP(ipAddress);
    AP_SWAP_EACH(fanRpm);
    return 1;
}

int I_CHASSIS::Swap()
{
    AP_SWAP(chassisId);
    AP_SWAP(nbrSlots);
    AP_SWAP(temperature);
    return 1;
}

int I_HARDWARE_ALARM::Swap()
{
    AP_SWAP(alarmId);
    AP_SWAP(severity);
    AP_SWAP(component);
    AP_SWAP(slotNbr);
    AP_SWAP(unitNbr);
    raised.Swap();
    AP_SWAP(measured);
    AP_SWAP(threshold);
    return 1;
}

int I_BACKPLANE_STATE::Swap()
{
    AP_SWAP(slotNbr);
    AP_SWAP(peerSlotNbr);
    AP_SWAP(linkMask);
    AP_SWAP(state);
    changed.Swap();
    AP_SWAP(errorCount);
    AP_SWAP(crcErrors);
    AP_SWAP(utilizationPct);
    AP_SWAP(laneSpeedGbps);
    AP_SWAP(resyncCount);
    return 1;
}

int I_GROUP::Swap()
{
    AP_SWAP(groupId);
    AP_SWAP(groupType);
    AP_SWAP(lineType);
    AP_SWAP(nbrMembers);
    AP_SWAP(maxMembers);
    AP_SWAP(domainId);
    AP_SWAP(connectionId);
    created.Swap();
    AP_SWAP(partition);
    return 1;
}

int I_SUPERGROUP::Swap()
{
    AP_SWAP(supergroupId);
    AP_SWAP(lineType);
    AP_SWAP(nbrGroups);
    AP_SWAP_EACH(groupIds);
    created.Swap();
    AP_SWAP(domainId);
    return 1;
}

int I_CONNECTION::Swap()
{
    AP_SWAP(connectionId);
    AP_SWAP(connectionType);
    source.Swap();
    destination.Swap();
    AP_SWAP(state);
    AP_SWAP(direction);
    created.Swap();
    scheduledStart.Swap();
    scheduledEnd.Swap();
    AP_SWAP(circuitId);
    AP_SWAP(connectionSetId);
    AP_SWAP(groupId);
    AP_SWAP(nbrHops);
    for (auto& hop : path) hop.Swap();
    AP_SWAP(durationMs);
    return 1;
}

int I_CIRCUIT::Swap()
{
    AP_SWAP(circuitId);
    AP_SWAP(circuitType);
    AP_SWAP(state);
    AP_SWAP(nbrConnections);
    AP_SWAP_EACH(connectionIds);
    created.Swap();
    AP_SWAP(domainId);
    return 1;
}

int I_CONNECTION_SET::Swap()
{
    AP_SWAP(connectionSetId);
    AP_SWAP(state);
    AP_SWAP(nbrConnections);
    AP_SWAP_EACH(connectionIds);
    activated.Swap();
    AP_SWAP(domainId);
    AP_SWAP(priority);
    return 1;
}

int I_ALARM::Swap()
{
    AP_SWAP(alarmId);
    AP_SWAP(severity);
    AP_SWAP(alarmType);
    AP_SWAP(objectType);
    AP_SWAP(objectId);
    addr.Swap();
    raised.Swap();
    cleared.Swap();
    AP_SWAP(occurrences);
    return 1;
}

int I_TRANLOG::Swap()
{
    AP_SWAP(sequenceNbr);
    time.Swap();
    AP_SWAP(commandCode);
    AP_SWAP(result);
    AP_SWAP(objectType);
    AP_SWAP(objectId);
    return 1;
}

int I_MAINTENANCE::Swap()
{
    AP_SWAP(maintenanceId);
    AP_SWAP(maintenanceType);
    AP_SWAP(state);
    start.Swap();
    end.Swap();
    AP_SWAP(repeatIntervalSec);
    AP_SWAP(nbrPorts);
    for (auto& p : ports) p.Swap();
    AP_SWAP(result);
    return 1;
}

int I_DIAG_BAD_PATH::Swap()
{
    AP_SWAP(fromSlot);
    AP_SWAP(fromPort);
    AP_SWAP(toSlot);
    AP_SWAP(toPort);
    AP_SWAP(pathId);
    return 1;
}

int I_DATAGEN_RESULTS::Swap()
{
    AP_SWAP(sessionId);
    port.Swap();
    AP_SWAP(framesSent);
    AP_SWAP(errors);
    return 1;
}

int I_SERVER_SHUTDOWN::Swap()
{
    AP_SWAP(reason);
    AP_SWAP(delaySec);
    when.Swap();
    return 1;
}

int I_RESTORE_STANDBY_DB::Swap()
{
    AP_SWAP(restoreId);
    AP_SWAP(state);
    AP_SWAP(progressPct);
    started.Swap();
    finished.Swap();
    AP_SWAP(result);
    AP_SWAP(bytesRestored);
    AP_SWAP(bytesTotal);
    return 1;
}

int I_RECONCILE::Swap()
{
    AP_SWAP(state);
    return 1;
}

int I_USER::Swap()
{
    AP_SWAP(userId);
    AP_SWAP(role);
    AP_SWAP(privileges);
    AP_SWAP_EACH(domainIds);
    AP_SWAP(failedLogins);
    lastLogin.Swap();
    passwordChanged.Swap();
    AP_SWAP(sessionTimeoutSec);
    AP_SWAP(radiusServerId);
    AP_SWAP(maxSessions);
    return 1;
}

int I_DOMAIN::Swap()
{
    AP_SWAP(domainId);
    AP_SWAP(nbrUsers);
    AP_SWAP(nbrPorts);
    AP_SWAP(parentDomainId);
    created.Swap();
    return 1;
}

int I_EQUIPMENT::Swap()
{
    AP_SWAP(equipmentId);
    AP_SWAP(equipmentType);
    AP_SWAP(ipAddress);
    AP_SWAP(nbrPorts);
    AP_SWAP(domainId);
    added.Swap();
    return 1;
}

int I_XSL_ASSOCIATION::Swap()
{
    AP_SWAP(associationId);
    AP_SWAP(localSlot);
    AP_SWAP(localPort);
    AP_SWAP(remoteSwitchId);
    AP_SWAP(remoteSlot);
    AP_SWAP(remotePort);
    AP_SWAP(vlanId);
    return 1;
}

int I_XSL_COUNTS::Swap()
{
    AP_SWAP(nbrXsl);
    AP_SWAP(nbrActive);
    AP_SWAP(nbrTrunks);
    AP_SWAP(nbrAssociations);
    return 1;
}
