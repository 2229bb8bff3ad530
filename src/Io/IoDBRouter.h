#pragma once

// The router grows here; so far only the route tables the send handles use.
class RouteTable;

class IoRouter {
public:
    IoRouter(RouteTable* api, RouteTable* swi, RouteTable* poll) : pApiRoute(api), pSwiRoute(swi), pPollRoute(poll) {}

    RouteTable* pApiRoute;
    RouteTable* pSwiRoute;
    RouteTable* pPollRoute;
};
