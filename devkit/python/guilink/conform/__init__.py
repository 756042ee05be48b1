"""The conformance kit: tests a companion, or a device, against the rules of docs/link-protocol.md."""
