#include "runtime/Zol/Reactor.h"

namespace Zol {

ReactorPart::ReactorPart(Reactor& owner, Role role) : role_(role) {
  (owner.lastPart_ == nullptr ? owner.firstPart_ : owner.lastPart_->next_) = this;
  owner.lastPart_ = this;
}

void Reactor::hasNotificationActiveIs(bool active) {
  if (active == hasNotificationActive()) {
    return;
  }
  flagIs(notificationActiveFlag, active);
  for (const auto role : {ReactorPart::Role::notifiee, ReactorPart::Role::child}) {
    forEachPart(role, [active](ReactorPart& part) { part.doNotificationActive(active); });
  }
}

void Reactor::doZombieReactors(bool zombie) {
  if (zombie == isZombie()) {
    return;
  }
  forEachPart(ReactorPart::Role::notifiee, [zombie](ReactorPart& part) { part.doZombie(zombie); });
  flagIs(zombieFlag, zombie);
}

void Reactor::onZeroReferences() {
  referenceInc();  // a reference that the teardown takes for a moment must not start it again
  doZombieReactors(true);
  for (ReactorPart* part = firstPart_; part != nullptr; part = part->next_) {
    part->doTeardown();
  }
  delete this;
}

}  // namespace Zol
