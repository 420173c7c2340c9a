"""What the system tests stand on: private namespaces, processes, the start-up log, the bus."""
