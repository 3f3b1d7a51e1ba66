// A secret that is shown once, when it has been made.
import { t } from './texts'
import { Button, Dialog, say } from './ui'

interface SecretProps {
  title: string
  text: string
  secret: string
  onClose: () => void
}
export const SecretOnce = ({ title, text, secret, onClose }: SecretProps) => (
  <Dialog title={title}>
    <p>{text}</p>
    <p class="mono wrap">{secret}</p>
    <footer class="row end">
      <Button
        onClick={() => void navigator.clipboard.writeText(secret).then(() => say('peer.copied'))}
      >
        {t('peer.copy')}
      </Button>
      <Button kind="primary" onClick={onClose}>
        {t('close')}
      </Button>
    </footer>
  </Dialog>
)
