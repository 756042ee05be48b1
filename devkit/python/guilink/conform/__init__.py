"""The conformance kit: proves a companion, or a device, against the rules of docs/link-protocol.md."""
