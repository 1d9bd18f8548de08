// What the managed-node class tells the node-group class when nodes come,
// change and go, so that groups keep their expanded member lists current.
// The node-group class control point implements it beside its base; the
// managed-node class finds it through the control point (findRccpByName)
// and calls nothing while the class does not implement it.
#pragma once

namespace orvrm {

class NodeGroupHooks {
public:
    virtual ~NodeGroupHooks() = default;
    // A node was defined.
    virtual void nodeAddCB() = 0;
    // A node's attributes changed, its host name did not.
    virtual void nodeAttrChangeCB() = 0;
    // A node took a new host name (newName) or was removed (newName null).
    virtual void nodeDelOrChangeCB(const char* oldName, const char* newName) = 0;

    // The first two again, naming the node, so that only that node is
    // tested against the groups' selections; otherwise every node is read
    // again. The managed-node class calls these.
    virtual void nodeAdded(const char* hostname) = 0;
    virtual void nodeChanged(const char* hostname) = 0;
};

}  // namespace orvrm
